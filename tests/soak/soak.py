"""The Guardian under seeded random faults, judged from outside. See scripts/soak, which runs it."""

import argparse
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time
from datetime import datetime

import faults
import machine
import watch
from installation import Installation
from watch import Pace, Violation, fetch

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.append(os.path.join(HERE, "..", "browser"))
from guardian import refuse_what_is_in_use  # pylint: disable=wrong-import-position

POLL = 0.05
WAVE_CHANCE = 0.5
WAVE_LIMIT = 20  # Seconds; a wave ends by itself before.
REST_AFTER_WAVE = 3  # Seconds until the server has let go of the last client.
FEW_DESCRIPTORS, FEW_THREADS, FEW_MIB = 4, 3, 8  # How far a Guardian at rest may be from the first.
HEALTHY = faults.Bound.of_ticks(3, faults.SILENCE, 5)
CLOCK_TOLERANCE = 1200  # Seconds shown: less than any step, more than a round may be old.
SANITIZER_REPORT = re.compile(r"(ERROR|WARNING): \w+Sanitizer|runtime error:")


def say(text):
    print(f"soak: {text}", flush=True)


class Soak:
    """One run. Its public operations are what the faults are told in."""

    def __init__(self, installation, options):
        self.installation = installation
        self.pace = Pace(options.factor, options.slowness)
        self.chance = random.Random(options.seed)
        # Of its own: whether one is due depends on time, and must not change the faults.
        self._wave_chance = random.Random(options.seed + 1)
        self._options = options
        self._began = time.monotonic()
        self._pages = watch.PageWatcher(self.pace)
        self._processes = None
        self._wave = None
        self._wave_ended_at = 0.0
        self._pid = 0
        self._starts = 0
        self._first_rest = None
        self._usage = None
        self._told = {}
        self._waves = 0
        self._rests = 0
        self._longest_restart = 0.0
        self.fault = "start"

    # What the faults are told in.

    def order(self, *words):
        self.installation.order_faults(*words)

    def withdraw_orders(self):
        self.installation.order_faults()

    def signal_daemon(self, number):
        os.kill(self._pid, number)

    def await_restart(self, bound):
        """Another daemon runs in time. What was ordered is withdrawn when the old one has ended."""
        began, withdrawn = time.monotonic(), False
        for _ in self._within(bound, "the daemon did not run again"):
            pid = self.installation.daemon_pid()
            if pid != self._pid and not withdrawn:
                self.withdraw_orders()
                withdrawn = True
            if pid not in (0, self._pid):
                break
        self._longest_restart = max(self._longest_restart, time.monotonic() - began)
        self._pid = self.installation.daemon_pid()
        self._starts += 1

    def await_enquiries(self, count, bound):
        """The daemon is asked so often in time, and never ended."""
        asked = self._enquiries()
        for _ in self._within(bound, "the daemon was not asked"):
            self._require_same_daemon()
            if self._enquiries() >= asked + count:
                break
        self.hold(self.chance.uniform(0, 6) * faults.TICK)
        self.withdraw_orders()

    def hold(self, watchdog_seconds):
        """So long the same daemon runs."""
        for _ in self._for(watchdog_seconds):
            self._require_same_daemon()

    def hold_down(self, watchdog_seconds):
        """So long nothing is asked of anybody."""
        for _ in self._for(watchdog_seconds):
            pass

    def shown_time(self):
        """How many seconds the time of the last round, as the main page shows it, is ahead of a
        clock that began with this run."""
        shown = re.findall(r"Status at (\d+-\d+-\d+ \d+:\d+:\d+):", fetch(""))
        if not shown:
            raise Violation("the main page shows no time")
        ours = (time.monotonic() - self._began) * self.pace.factor
        return datetime.fromisoformat(shown[-1]).timestamp() - ours

    def await_shown_time(self, before, step, bound):
        for _ in self._within(bound, f"the wall clock's step of {step} s was not shown"):
            if abs(self.shown_time() - before - step) < CLOCK_TOLERANCE:
                break

    # The run.

    def run(self):
        self._start()
        self._warm_up()
        deadline = self._began + self._options.minutes * 60
        for fault in self._draw(deadline):
            self._suffer(fault)
        self.fault = "end"
        self._await_wave()
        self._await_healthy()
        self._rest()
        self._end()

    def stop(self):
        """Ends the watchers and the wave; not the installation."""
        self._pages.stop()
        if self._processes:
            self._processes.stop()
        if self._wave:
            self._wave.kill()
            self._wave.communicate()

    def summary(self):
        pages, processes = self._pages, self._processes
        total = sum(self._told.values())
        return (f"{total} faults of {len(self._told)} kinds, {self._starts} starts of the daemon "
                f"(longest wait {self._longest_restart:.1f} s), {self._waves} hostile waves, "
                f"{pages.count} pages (longest {pages.longest:.3f} s, {pages.longest_page}), "
                f"longest round {pages.longest_round:.1f} s, {self._rests} rests, "
                f"daemon looked into {processes.daemon_looks} times, "
                f"at most {processes.most_descriptors} descriptors, "
                f"{processes.most_threads} threads, {processes.most_memory:.1f} MiB; at rest first "
                f"{self._first_rest}, last {self._usage}")

    def _start(self):
        self.installation.start_guardian()
        for _ in self._within(faults.Bound(0, 10), "the Guardian did not answer"):
            try:
                fetch("status.php")
                break
            except OSError:
                if self.installation.guardian_exit_status() is not None:
                    raise Violation("the Guardian ended at its start") from None
        self._processes = watch.ProcessWatcher(self.installation)
        self._processes.start()
        self._pages.start()
        self.await_restart(faults.DEAD)
        self._await_healthy()

    # Whatever is taken once and kept, is taken here: by a wave, by a restart, by every page.
    def _warm_up(self):
        self.fault = "warm-up"
        self._start_wave()
        faults.kill(self)
        self._await_wave()
        self._await_healthy()
        self._first_rest = self._calmest_usage()
        say(f"at rest: {self._first_rest}")
        if self._options.sabotage == "leak":
            self.installation.leak(20)
        elif self._options.sabotage == "stop":
            os.kill(self.installation.guardian_pid(), signal.SIGSTOP)

    def _draw(self, deadline):
        """Every kind comes once, in an order of chance, before any comes again; those that may take
        too long no more."""
        kinds = [each for each in faults.DECK if self._options.only in ("", each.name)]
        deck = []
        while True:
            if not deck:
                deck = self.chance.sample(kinds, len(kinds))
            left = deadline - time.monotonic()
            fitting = [each for each in deck if self._seconds(each.bound) < left]
            if not fitting and len(deck) == len(kinds):
                return
            if not fitting:
                deck = []
                continue
            deck.remove(fitting[0])
            yield fitting[0]

    def _suffer(self, fault):
        self.fault = fault.name
        if self._wave is None and self._wave_chance.random() < WAVE_CHANCE:
            self._start_wave()
        began = time.monotonic()
        fault.story(self)
        self._await_healthy()
        self._told[fault.name] = self._told.get(fault.name, 0) + 1
        say(f"{began - self._began:7.1f} s  {fault.name}: {time.monotonic() - began:.1f} s")
        self.installation.reap()
        self._look_at_wave()
        if self._wave is None and time.monotonic() - self._wave_ended_at > REST_AFTER_WAVE:
            self._rest()

    def _await_healthy(self):
        for _ in self._within(HEALTHY, "the Guardian did not find all well again"):
            self._require_same_daemon()
            status = self._pages.status
            if status and all(status["checks"][name] for name in ("mutex", "pipe", "service")) \
                    and status["daemon"]["pid"] == str(self._pid):
                break
        starts = self.installation.daemon_starts()
        if starts != self._starts:
            raise Violation(f"the daemon was started {starts} times instead of {self._starts}")

    def _rest(self):
        self._usage = self._calmest_usage()
        self._rests += 1
        more = [f"{name} {now:.0f} after {first:.0f}" for name, now, first, few in (
            ("descriptors", self._usage.descriptors, self._first_rest.descriptors, FEW_DESCRIPTORS),
            ("threads", self._usage.threads, self._first_rest.threads, FEW_THREADS),
            ("MiB", self._usage.memory_mib, self._first_rest.memory_mib, self._few_mib()))
                if now - first > few]
        if more:
            raise Violation(f"the Guardian at rest has grown: {', '.join(more)}")
        for _ in self._within(faults.Bound(0, 3), "the temporary directory is not empty"):
            if not self.installation.temp_files():
                break
        others = watch.listeners_beyond(self.installation.guardian_pid())
        if others:
            raise Violation(f"port {watch.PORT} is also held by PID {others}")

    # A sanitizer keeps freed memory on purpose.
    def _few_mib(self):
        return FEW_MIB if self._options.slowness == 1 else float("inf")

    # Between two rounds: a round has a shell, and its page has a connection.
    def _calmest_usage(self):
        looks = []
        for _ in self._for(2 * faults.TICK):
            looks.append(machine.usage(self.installation.guardian_pid()))
        return min((each for each in looks if each), key=lambda each: each.descriptors)

    def _start_wave(self):
        self._wave = subprocess.Popen(
            [sys.executable, "-B", os.path.join(HERE, "hostile.py"),
             str(self._wave_chance.randrange(2**32)), str(self.pace.slowness)],
            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        self.installation.own_children.add(self._wave.pid)
        self._waves += 1

    def _await_wave(self):
        for _ in self._within(faults.Bound(0, WAVE_LIMIT), "the hostile clients did not end"):
            self._look_at_wave()
            if self._wave is None:
                break
        self.hold(REST_AFTER_WAVE * self.pace.factor)

    def _look_at_wave(self):
        if self._wave is None or self._wave.poll() is None:
            return
        said = self._wave.communicate()[0].strip()
        self.installation.own_children.discard(self._wave.pid)
        status, self._wave, self._wave_ended_at = self._wave.returncode, None, time.monotonic()
        if status != 0:
            raise Violation(f"the hostile clients report: {said}")

    def _end(self):
        self.stop()
        fetch("terminateguardian.php")
        limit = self.pace.seconds(0, 5)
        status = self.installation.await_guardian_end(limit)
        if status is None:
            raise Violation(f"the Guardian did not end within {limit:.0f} s")
        output = self.installation.guardian_output()
        if status != 0 or SANITIZER_REPORT.search(output):
            raise Violation(f"the Guardian ended with {status}; its output: guardian.out")
        if self.installation.temp_files():
            raise Violation(f"left behind: {self.installation.temp_files()}")
        if self.installation.daemon_pid() != self._pid:
            raise Violation("the daemon did not outlive the Guardian's end")

    def _enquiries(self):
        return self.installation.daemon_log().count("Command received: msgEnquireStatus")

    def _require_same_daemon(self):
        pid = self.installation.daemon_pid()
        if pid != self._pid:
            raise Violation(f"the daemon, PID {self._pid}, was ended without need, now PID {pid}")

    def _seconds(self, bound):
        return self.pace.seconds(bound.watchdog, bound.real)

    def _within(self, bound, otherwise):
        """Looks to be made within the bound; a violation when there is no time for another."""
        limit = self._seconds(bound)
        end = time.monotonic() + limit
        while time.monotonic() < end:
            self._check()
            yield
            time.sleep(POLL)
        raise Violation(f"{otherwise} within {limit:.1f} s")

    def _for(self, watchdog_seconds):
        end = time.monotonic() + self.pace.seconds(watchdog_seconds)
        while time.monotonic() < end:
            self._check()
            yield
            time.sleep(POLL)

    def _check(self):
        for watcher in (self._pages, self._processes):
            if watcher and watcher.violation:
                raise Violation(watcher.violation)


def keep_pages(folder):
    for page in ("", "threadreport.php", "status.json"):
        try:
            body = fetch(page, 2)
        except OSError as error:
            body = f"no answer: {error}\n"
        path = os.path.join(folder, f"page-{page or 'main.html'}")
        with open(path, "w", encoding="utf-8") as file:
            file.write(body)


def soak(options, folder):
    """The exit status."""
    installation = Installation(options.bin_folder, folder, options.factor)
    run = Soak(installation, options)
    began = time.monotonic()
    try:
        run.run()
        say(f"passed, seed {options.seed}, {time.monotonic() - began:.0f} s: {run.summary()}")
        return 0
    except Violation as violation:
        say(f"VIOLATION {time.monotonic() - began:.1f} s after the start, during \"{run.fault}\", "
            f"seed {options.seed}, load {os.getloadavg()[0]:.1f}: {violation}")
        keep_pages(folder)
        return 1
    finally:
        run.stop()
        installation.end()


def parse_options():
    parser = argparse.ArgumentParser()
    parser.add_argument("bin_folder")
    parser.add_argument("minutes", type=float)
    parser.add_argument("seed", type=int)
    parser.add_argument("--factor", type=int, default=10)
    parser.add_argument("--slowness", type=float, default=1)
    parser.add_argument("--only", default="", choices=[each.name for each in faults.DECK])
    parser.add_argument("--sabotage", choices=("leak", "stop"))
    return parser.parse_args()


def main():
    options = parse_options()
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: sys.exit("soak: interrupted"))
    try:
        refuse_what_is_in_use()
    except Exception as error:  # pylint: disable=broad-except
        sys.exit(f"soak: {error}")
    folder = tempfile.mkdtemp(prefix="guardian-soak.")
    say(f"seed {options.seed}, {options.minutes:g} minutes, the watchdog's time runs "
        f"{options.factor} times as fast, in {folder}")
    status = 1
    try:
        status = soak(options, folder)
    finally:
        if status == 0 or options.sabotage:
            shutil.rmtree(folder)
        else:
            say(f"kept: {folder}")
    sys.exit(status)


if __name__ == "__main__":
    main()
