"""The faults, each a story: what is done, and what must follow within which time.

A bound has two parts: seconds of the watchdog's time, which runs faster by a factor, and seconds of
the machine's. TICK is the watchdog's interval; LOOK is what the looks of a tick may take beyond it,
START and STOP what those commands may take on a busy machine.
"""

import os
import signal
import time
from dataclasses import dataclass
from typing import Callable

from watch import Violation, fetch

TICK = 10
SILENCE = 60  # Without a record for that long the pipe is opened anew.
PIPE_DEAD = 120  # Silent for that long, the pipe has failed.
PULSE_STILL = 72  # Unchanged for that long, the daemon is asked; a still pulse never restarts it.
FAILURES = 6  # Failed looks in a row before a restart.
ORDER = 1  # A control page's order is carried out by then.
LOOK = 0.5
START = 3.0
STOP = 2.0
NOTICE = 1.0  # Until the stand-in has read its orders.
STOP_REFUSED = 15.0  # The stand-in's own patience with a stop.
STOP_CUT = 22.0  # The Guardian's patience with it, and the time to end it.
BURST = 11.0  # Ten records, one a second, and the connection is closed.


@dataclass(frozen=True)
class Bound:
    watchdog: float
    real: float

    @classmethod
    def of_ticks(cls, ticks, watchdog=0.0, real=0.0):
        return cls(ticks * TICK + watchdog, ticks * LOOK + real)


DEAD = Bound.of_ticks(1, real=START)
ORDERED = Bound.of_ticks(2, ORDER, STOP + START)
MUTEX = Bound.of_ticks(FAILURES + 1, real=NOTICE + STOP + START)
MUTEX_STOP_IGNORED = Bound.of_ticks(FAILURES + 2, real=NOTICE + STOP + START)
MUTEX_TERM_IGNORED = Bound.of_ticks(FAILURES + 5, real=NOTICE + STOP_REFUSED + START)
MUTEX_STOP_HANGS = Bound.of_ticks(FAILURES + 2, real=NOTICE + STOP_CUT + START)
PIPE = Bound.of_ticks(1 + FAILURES + 1, SILENCE, NOTICE + STOP + START)
PIPE_DELETED = Bound.of_ticks(2 + FAILURES + 1, SILENCE, BURST + STOP + START)
HUNG = Bound.of_ticks(1 + FAILURES + 5, PIPE_DEAD, STOP_REFUSED + START)
ASKED_STILL = Bound.of_ticks(5, SILENCE + PULSE_STILL, NOTICE + 2)
ASKED_PULSE = Bound.of_ticks(3, SILENCE + PULSE_STILL, NOTICE + 2)
ASKED_SILENT = Bound.of_ticks(3, SILENCE, NOTICE + 1)


@dataclass(frozen=True)
class Fault:
    name: str
    story: Callable
    bound: Bound


def kill(run):
    run.signal_daemon(signal.SIGKILL)
    run.await_restart(DEAD)


def crash(run):
    run.order("crash")
    run.await_restart(Bound(DEAD.watchdog, DEAD.real + NOTICE))


def hang(run):
    run.signal_daemon(signal.SIGSTOP)
    run.await_restart(HUNG)


def lose_mutex(run):
    run.order("drop-mutex")
    run.await_restart(MUTEX)


def lose_mutex_ignoring_stop(run):
    run.order("drop-mutex", "ignore-stop")
    run.await_restart(MUTEX_STOP_IGNORED)


def lose_mutex_ignoring_term(run):
    run.order("drop-mutex", "ignore-term")
    run.await_restart(MUTEX_TERM_IGNORED)


def lose_mutex_hanging_stop(run):
    run.order("drop-mutex", "hang-stop")
    run.await_restart(MUTEX_STOP_HANGS)


def lose_pipe(run):
    run.order("close-pipe")
    run.await_restart(PIPE)


def delete_socket(run):
    run.installation.delete_pipe()
    run.await_restart(PIPE_DELETED)


def freeze_pulse(run):
    """A pulse that has only not been listened to is asked for once: the answer has a new one."""
    run.order("freeze-pulse")
    run.await_enquiries(3, ASKED_STILL)


def send_garbage(run):
    run.order("garbage")
    run.await_enquiries(1, ASKED_PULSE)


def mute_pipe(run):
    run.order("mute-pipe")
    run.await_enquiries(1, ASKED_SILENT)


def refuse_start(run):
    run.order("start-fails")
    run.signal_daemon(signal.SIGKILL)
    run.hold_down(run.chance.uniform(1, 4) * TICK)
    run.withdraw_orders()
    run.await_restart(DEAD)


def order_by_page(run):
    fetch(run.chance.choice(("stopdaemon.php", "terminatedaemon.php", "killdaemon.php")))
    run.await_restart(ORDERED)


def fill_temp_folder(run):
    """A daemon that dies meanwhile is started as ever: only the command's output is lost."""
    if not run.installation.can_fill_temp_folder():
        break_temp_folder(run)
        return
    run.installation.fill_temp_folder()
    try:
        run.hold(run.chance.uniform(1, 3) * TICK)
        run.signal_daemon(signal.SIGKILL)
        run.await_restart(DEAD)
        run.hold(run.chance.uniform(1, 3) * TICK)
    finally:
        run.installation.mend_temp_folder()


def break_temp_folder(run):
    """No command can be run meanwhile, so a daemon that dies is started once that is over."""
    run.installation.break_temp_folder()
    try:
        run.hold(run.chance.uniform(1, 2) * TICK)
        run.signal_daemon(signal.SIGKILL)
        run.hold_down(run.chance.uniform(1, 3) * TICK)
    finally:
        run.installation.mend_temp_folder()
    run.await_restart(DEAD)


def step_wall_clock(run):
    """Back and forth by hours and years: the shown time follows, and the watchdog minds nothing."""
    before = run.shown_time()
    for _ in range(3):
        step = run.chance.choice((-1, 1)) * run.chance.choice((3600, 7200, 86400, 400 * 86400))
        run.installation.step_wall_clock(step)
        run.await_shown_time(before, step, Bound.of_ticks(2, real=1))
        run.hold(run.chance.uniform(0, 2) * TICK)
    run.installation.step_wall_clock(0)
    run.await_shown_time(before, 0, Bound.of_ticks(2, real=1))


def start_second_guardian(run):
    limit = run.pace.seconds(0, 5)
    for word, answer in (("start", "Guardian Service already running."),
                         ("status", "Guardian running and accessible via port 8900.")):
        said = run.installation.command(word, limit)
        if answer not in said:
            raise Violation(f"a second Guardian with \"{word}\" said: {said[:200]!r}")


# With the longest wait that each may bring; the help of scripts/soak lists them for people.
DECK = (
    Fault("killed", kill, DEAD),
    Fault("crashed", crash, DEAD),
    Fault("hung", hang, HUNG),
    Fault("mutex lost", lose_mutex, MUTEX),
    Fault("mutex lost, stop ignored", lose_mutex_ignoring_stop, MUTEX_STOP_IGNORED),
    Fault("mutex lost, SIGTERM ignored", lose_mutex_ignoring_term, MUTEX_TERM_IGNORED),
    Fault("mutex lost, stop hangs", lose_mutex_hanging_stop, MUTEX_STOP_HANGS),
    Fault("pipe lost", lose_pipe, PIPE),
    Fault("socket deleted", delete_socket, PIPE_DELETED),
    Fault("pulse frozen", freeze_pulse, ASKED_STILL),
    Fault("garbage", send_garbage, ASKED_PULSE),
    Fault("pipe mute", mute_pipe, ASKED_SILENT),
    Fault("start refused", refuse_start, DEAD),
    Fault("ended by page", order_by_page, ORDERED),
    Fault("temporary directory full", fill_temp_folder, DEAD),
    Fault("temporary directory unusable", break_temp_folder, DEAD),
    Fault("wall clock stepped", step_wall_clock, Bound.of_ticks(2, real=1)),
    Fault("second Guardian", start_second_guardian, Bound(0, 5)),
)
