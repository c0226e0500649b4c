# HTTP clients that no server likes, a whole wave of them at once against the Guardian's port.
#
#   hostile.py SEED SLOWNESS
# Ends by itself within 20 seconds, times the slowness: with 1 and a line about the kinds
# of client that the server kept longer than it promises, if there are any.

import asyncio
import random
import sys

KEPT_SECONDS = 10 + 2  # The server's time for a whole header, and some grace.
SLOW_CLIENTS, FLOODS = 40, 15
HEAD = b"GET / HTTP/1.1\r\nHost: localhost\r\n"


# A byte now and then, never a whole header.
async def drip(writer, chance):
    for byte in HEAD + b"X-Drip: " + b"x" * 100:
        writer.write(bytes([byte]))
        await asyncio.sleep(chance.uniform(0.1, 0.4))


# The first part of a header, perhaps nothing of it; perhaps it says that there is no more to come.
async def stall(writer, chance):
    writer.write(HEAD[:chance.randrange(len(HEAD))])
    if chance.random() < 0.5:
        writer.write_eof()


# Ten times the header that the server takes.
async def flood(writer, _chance):
    writer.write(HEAD)
    for number in range(640):
        writer.write(b"X-%d: %s\r\n" % (number, b"y" * 1000))
        await writer.drain()


# Asks again and again and takes no answer; its buffers fill up.
async def never_read(writer, chance):
    writer.transport.pause_reading()
    for _ in range(50):
        writer.write((HEAD + b"\r\n") * 10)
        await asyncio.sleep(chance.uniform(0.1, 0.2))


SENT_AWAY = (drip, stall, flood)  # By the server, in time.


# One visit; returns what the server did wrong, or None.
async def visit(behave, chance, slowness):
    await asyncio.sleep(chance.uniform(0, 1))
    try:
        reader, writer = await asyncio.open_connection("127.0.0.1", 8900)
    except OSError:
        return None  # Turned away: the server is full.
    acting = asyncio.ensure_future(behave(writer, chance))
    try:
        await (asyncio.wait_for(reader.read(), KEPT_SECONDS * slowness)
               if behave in SENT_AWAY else acting)
    except asyncio.TimeoutError:
        return f"{behave.__name__}: still connected after {KEPT_SECONDS * slowness:.0f} s"
    except OSError:
        pass  # Sent away in the middle.
    finally:
        acting.cancel()
        await asyncio.gather(acting, return_exceptions=True)
        writer.transport.abort()
    return None


async def wave(seed, slowness):
    chance = random.Random(seed)
    kinds = chance.choices((*SENT_AWAY, never_read), k=SLOW_CLIENTS) + [flood] * FLOODS
    visits = [visit(kind, random.Random(chance.random()), slowness) for kind in kinds]
    problems = set(await asyncio.gather(*visits)) - {None}
    await asyncio.sleep(3)  # Until the server has let go of the last client.
    if problems:
        sys.exit("hostile: " + "; ".join(sorted(problems)))


if __name__ == "__main__":
    asyncio.run(wave(int(sys.argv[1]), float(sys.argv[2])))
