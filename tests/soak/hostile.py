"""HTTP clients that no server likes, a whole wave of them at once against the Guardian's port.

hostile.py SEED SLOWNESS: ends by itself within about a quarter of a minute. Exit status 1 and a
line when the server served one of them longer than it promises."""

import asyncio
import random
import sys

ADDRESS = ("127.0.0.1", 8900)
WAVE_SECONDS = 14
HEADER_SECONDS = 10  # The server's time for a whole header.
GRACE_SECONDS = 2
SLOW_CLIENTS = 40
FLOODS = 15
CROWD = 300  # More than the server keeps open.
HEAD = b"GET / HTTP/1.1\r\nHost: localhost\r\n"


class ServedTooLong(Exception):
    pass


async def await_close(reader, what, limit_seconds):
    """Reads until the server closes."""
    async def read_all():
        while await reader.read(65536):
            pass
    try:
        await asyncio.wait_for(read_all(), limit_seconds)
    except asyncio.TimeoutError:
        raise ServedTooLong(f"{what} was still connected after {limit_seconds:.0f} s") from None


async def drip(reader, writer, chance, slowness):
    """A byte now and then, never a whole header."""
    async def send():
        for byte in HEAD + b"X-Drip: " + b"x" * 100:
            writer.write(bytes([byte]))
            await asyncio.sleep(chance.uniform(0.1, 0.4))
    sending = asyncio.create_task(send())
    try:
        await await_close(reader, "a dripping client", (HEADER_SECONDS + GRACE_SECONDS) * slowness)
    finally:
        sending.cancel()


async def stall(reader, writer, chance, slowness):
    """The first part of a header, perhaps nothing of it."""
    writer.write(HEAD[:chance.randrange(len(HEAD))])
    await await_close(reader, "a stalled client", (HEADER_SECONDS + GRACE_SECONDS) * slowness)


async def half_open(reader, writer, chance, slowness):
    """Half a header, and no more to come."""
    writer.write(HEAD[:chance.randrange(1, len(HEAD))])
    writer.write_eof()
    await await_close(reader, "a half-open client", (HEADER_SECONDS + GRACE_SECONDS) * slowness)


async def never_read(_reader, writer, chance, _slowness):
    """Asks again and again and takes no answer; its buffers fill up."""
    writer.transport.pause_reading()
    for _ in range(50):
        writer.write((HEAD + b"\r\n") * 10)
        await asyncio.sleep(chance.uniform(0.1, 0.2))


async def flood_headers(reader, writer, chance, slowness):
    """Ten times the header that the server takes."""
    async def send():
        writer.write(HEAD)
        for number in range(640):
            writer.write(b"X-%d: %s\r\n" % (number, b"y" * 1000))
            await writer.drain()
    sending = asyncio.create_task(send())
    try:
        await await_close(reader, "a flooding client", (GRACE_SECONDS + HEADER_SECONDS) * slowness)
    finally:
        sending.cancel()
        await asyncio.gather(sending, return_exceptions=True)
    del chance


async def send_noise(reader, writer, chance, slowness):
    writer.write(chance.randbytes(chance.randrange(1, 5000)) + b"\r\n\r\n")
    await await_close(reader, "a client of noise", (HEADER_SECONDS + GRACE_SECONDS) * slowness)


async def crowd(_reader, writer, chance, _slowness):
    """Only there, and gone without a word."""
    await asyncio.sleep(chance.uniform(1, 5))
    writer.transport.abort()


async def visit(behave, chance, slowness):
    await asyncio.sleep(chance.uniform(0, 1))
    try:
        reader, writer = await asyncio.open_connection(*ADDRESS)
    except OSError:
        return  # Turned away: the server is full.
    try:
        await behave(reader, writer, chance, slowness)
    except OSError:
        pass  # Sent away in the middle, as it deserves.
    finally:
        writer.transport.abort()


async def wave(seed, slowness):
    chance = random.Random(seed)
    slow = [drip, stall, half_open, never_read, send_noise]
    behaviours = [chance.choice(slow) for _ in range(SLOW_CLIENTS)] + [flood_headers] * FLOODS
    if chance.random() < 0.4:
        behaviours += [crowd] * CROWD
    visits = [asyncio.create_task(visit(each, random.Random(chance.random()), slowness))
              for each in behaviours]
    done, pending = await asyncio.wait(visits, timeout=WAVE_SECONDS * slowness)
    for each in pending:
        each.cancel()
    await asyncio.gather(*pending, return_exceptions=True)
    problems = {str(each.exception()) for each in done if each.exception() is not None}
    print(f"{len(behaviours)} clients", *sorted(problems), sep="; ", flush=True)
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(asyncio.run(wave(int(sys.argv[1]), float(sys.argv[2]))))
