# The faults that the soak plays, as data: what is done, how it must end, and within which bound.

import os
import signal
from typing import Callable, NamedTuple

from installation import fetch

TICK = 10  # Seconds between two rounds of the watchdog.
LOOK = 0.5  # What the looks of a round take beyond that, by the machine's time.
SILENCE = 60  # Without a record for that long, the pipe is opened anew.
PIPE_DEAD = 120  # Silent for that long, the pipe has failed.
PULSE_STILL = 72  # Unchanged for that long, the daemon is asked; a still pulse never restarts it.
FAILURES = 6  # Failed rounds in a row before a restart.
# Of the machine's time: what commands take on a busy machine, and the stand-in to read its orders.
START, STOP, NOTICE = 3.0, 2.0, 1.0
STOP_REFUSED = 15.0  # The stand-in's own patience with a stop.


# Rounds, seconds of the watchdog's time besides, which may run fast, and of the machine's.
class Bound(NamedTuple):
    rounds: int
    watchdog: float = 0
    machine: float = 0


class Story(NamedTuple):
    name: str
    steps: tuple  # Called with the run, one after the other.
    outcome: Callable  # Called with the run and the bound; raises Failed.
    bound: Bound


# Steps.


def order(*words):
    return lambda run: run.installation.order_faults(*words)


def send(number):
    return lambda run: os.kill(run.pid, number)


# So many rounds the same daemon goes on, or something else is done again and again.
def hold(least, most, act=None):
    return lambda run: run.hold(run.chance.uniform(least, most), act)


def delete_socket(run):
    os.unlink(run.installation.path("home/mutex/vellumark$qrnd$schedulermutex"))


# Calls the installation's operation of that name.
def call(name):
    return lambda run: getattr(run.installation, name)()


# Outcomes.


# Another daemon runs. Orders are withdrawn once the old one has ended.
def restarted(run, bound):
    def is_back():
        pid = run.installation.daemon_pid()
        if pid != run.pid:
            run.installation.order_faults()
        return pid not in (0, run.pid)
    run.await_that("the daemon runs again", is_back, bound)
    run.pid = run.installation.daemon_pid()
    run.starts += 1


# The daemon is asked how it is, so often, and never ended.
def asked(times):
    def outcome(run, bound):
        def enquiries():
            run.require_same_daemon()
            return run.installation.read("home/logs/daemon.log").count("received: msgEnquireStatus")
        before = enquiries()
        run.await_that("the daemon is asked", lambda: enquiries() >= before + times, bound)
        run.hold(run.chance.uniform(0, 6))
    return outcome


KILL = send(signal.SIGKILL)
DEAD = Bound(1, 0, START)
COMMANDS = NOTICE + STOP + START

STORIES = (
    Story("killed", (KILL,), restarted, DEAD),
    # Told to stop, terminated thrice, killed, started.
    Story("hung", (send(signal.SIGSTOP),), restarted,
          Bound(1 + FAILURES + 5, PIPE_DEAD, STOP_REFUSED + START)),
    Story("mutex lost", (order("drop-mutex"),), restarted, Bound(FAILURES + 1, 0, COMMANDS)),
    Story("mutex lost, stop ignored", (order("drop-mutex", "ignore-stop"),), restarted,
          Bound(FAILURES + 2, 0, COMMANDS)),
    # The Guardian's patience with the stop, and the time to end it.
    Story("mutex lost, stop hangs", (order("drop-mutex", "hang-stop"),), restarted,
          Bound(FAILURES + 2, 0, NOTICE + 20 + 2 + START)),
    Story("pipe lost", (order("close-pipe"),), restarted,
          Bound(1 + FAILURES + 1, SILENCE, COMMANDS)),
    # First come ten records, one a second; then the Guardian closes the connection.
    Story("socket deleted", (delete_socket,), restarted,
          Bound(2 + FAILURES + 1, SILENCE, 11 + STOP + START)),
    # A single question could also mean that the Guardian had only missed the pulse.
    Story("pulse frozen", (order("freeze-pulse"),), asked(3),
          Bound(5, SILENCE + PULSE_STILL, NOTICE + 2)),
    Story("garbage", (order("garbage"),), asked(1), Bound(3, SILENCE + PULSE_STILL, NOTICE + 2)),
    Story("pipe mute", (order("mute-pipe"),), asked(1), Bound(3, SILENCE, NOTICE + 1)),
    Story("start refused", (order("start-fails"), KILL, hold(1, 4, lambda: None), call("mend")),
          restarted, DEAD),
    # A page's order is carried out after a second.
    Story("killed by page", (lambda _: fetch("killdaemon.php"),), restarted, Bound(2, 1, START)),
    Story("temporary directory full", (call("fill_temp"), hold(1, 3), KILL), restarted, DEAD),
    Story("temporary directory unusable", (call("use_up_temp"), hold(1, 2), KILL), restarted, DEAD),
    Story("temporary folder lost", (call("lose_temp"), hold(1, 2), KILL), restarted, DEAD),
)
