# The running Guardian, of which a system call fails now and then. scripts/failing-calls runs it.
#   failing_calls.py BIN_FOLDER SECONDS SEED   SECONDS may be 0: every point once
#
# First a census: which calls each thread makes within some rounds and while all pages are asked for.
# Then each of these calls fails once, with each error that its kind really returns, and the Guardian
# must be what it was before.

import collections
import contextlib
import http.client
import json
import os
import random
import re
import shutil
import subprocess
import sys
import tempfile
import time

import psutil

from installation import PAGES, Failed, Installation, await_that, fetch, is_healthy, require

# The watchdog's time; a round is a second. A lost wake-up of the main loop lasts 10 s by the machine's
# time, which would be a dead daemon if the watchdog's went by much faster.
FACTOR = 10
CENSUS_ROUNDS = 16
MOST = 6  # Calls of a kind in a thread; later ones repeat what the first ones did.
TIMER, STARTED = "GuardianTimer", "started by GuardianTimer"
KINDS = {
    "open,openat": ("EMFILE", "EACCES"),
    "read,pread64,readv": ("EIO", "EINTR"),
    "write,pwrite64,writev": ("ENOSPC", "EAGAIN"),
    "recvfrom,recvmsg": ("ENOMEM", "EINTR"),
    "sendto,sendmsg": ("ENOMEM", "EAGAIN"),
    "connect": ("EAGAIN", "EACCES"),
    "accept,accept4": ("EMFILE", "ENOMEM", "EINTR"),
    "clone,clone3,vfork": ("EAGAIN", "ENOMEM"),
    "execve": ("ENOMEM", "EACCES"),
    "mmap": ("ENOMEM",),
    "fsync,fdatasync": ("EIO", "ENOSPC"),
    "rename,renameat,renameat2": ("ENOSPC", "EACCES"),
    "flock": ("EINTR", "ENOMEM"),
}
Point = collections.namedtuple("Point", "thread kind error number")


class FailingCalls:
    def __init__(self, installation):
        self._installation = installation
        self._log = installation.path("strace.out")
        self._guardian = None
        self._pid = 0  # The daemon's.
        self._usage = ()

    def start(self):
        self._installation.start_guardian()
        self._guardian = psutil.Process(self._installation.guardian.pid)
        await_that("all is well", lambda: is_healthy(self._status()), 20)
        self._pid = self._installation.daemon_pid()
        self._ask_all()
        usages = collections.Counter()
        for _ in range(40):
            usages[self._usage_now()] += 1
            time.sleep(0.05)
        self._usage = usages.most_common(1)[0][0]

    # All points, from what the threads do when nothing fails.
    def census(self):
        calls = collections.Counter()
        kind_of = {name: kind for kind in KINDS for name in kind.split(",")}
        threads = self._threads()
        with self._traced(threads, f"trace={','.join(kind_of)}"):
            self._let_rounds_go_by(CENSUS_ROUNDS)
        for task, call in re.findall(r"^(\d+) +(\w+)\(", self._installation.read("strace.out"), re.M):
            calls[threads.get(int(task), STARTED), task, kind_of[call]] += 1
        most = collections.defaultdict(int)
        for (thread, _, kind), count in calls.items():
            most[thread, kind] = max(most[thread, kind], min(count, MOST))
        return [Point(thread, kind, error, number + 1) for (thread, kind), count in most.items()
                for error in KINDS[kind] for number in range(count)]

    # Returns whether the call was made, and so failed.
    def try_point(self, point):
        of_children = point.thread == STARTED
        wanted = TIMER if of_children else point.thread
        threads = {each: name for each, name in self._threads().items() if name == wanted}
        if not threads:
            return False
        rule = f"inject={point.kind}:error={point.error}:when={point.number}"
        with self._traced(threads, rule, follow=of_children):
            self._let_rounds_go_by(8, self._has_failed)
        if not self._has_failed():
            return False
        self._require_normal()
        return True

    def _require_normal(self):
        self._installation.require_guardian()
        self._let_rounds_go_by(2)  # The round under way may be the one that failed.
        await_that("all is well again", lambda: is_healthy(self._status()), 10)
        self._ask_all()
        self._installation.require_daemon(self._pid)
        await_that(f"descriptors, threads and children are {self._usage}, now {self._usage_now()}",
                   lambda: self._usage_now() == self._usage, 10)

    @contextlib.contextmanager
    def _traced(self, threads, rule, follow=True):
        open(self._log, "wb").close()
        command = ["strace", "-qq", "-o", self._log, "-e", rule, "-e", "signal=none"]
        if follow:
            command.append("-f")
        for each in threads:
            command += ["-p", str(each)]
        tracer = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        await_that("the tracer is attached", lambda: self._is_traced(threads), 10,
                   lambda: require(tracer.poll() is None, "strace may not look at the Guardian"))
        try:
            yield
        finally:
            tracer.terminate()
            # A tracer that does not come to its end lets go of everybody when it is killed.
            with contextlib.suppress(subprocess.TimeoutExpired):
                tracer.wait(2)
            tracer.kill()
            tracer.wait(10)

    def _is_traced(self, threads):
        with contextlib.suppress(FileNotFoundError):
            return all("TracerPid:\t0\n" not in self._task(each, "status") for each in threads)
        return True

    def _task(self, thread, name):
        with open(f"/proc/{self._guardian.pid}/task/{thread}/{name}", encoding="utf-8") as file:
            return file.read()

    def _threads(self):
        names = {}
        for each in self._guardian.threads():
            with contextlib.suppress(FileNotFoundError):
                names[each.id] = self._task(each.id, "comm").strip()
        return names

    def _has_failed(self):
        return "(INJECTED)" in self._installation.read("strace.out")

    # Asks for the pages meanwhile, of which one may fail.
    def _let_rounds_go_by(self, count, until=lambda: False):
        before = self._status()["counters"]["rounds"]

        def gone_by():
            for page in PAGES:
                with contextlib.suppress(OSError, http.client.HTTPException):
                    fetch(page, 3)
            return self._status()["counters"]["rounds"] >= before + count
        await_that(f"{count} rounds", lambda: until() or gone_by(), 30)

    @staticmethod
    def _ask_all():
        for page in PAGES:
            require(fetch(page, 3), f"page /{page} is empty")

    # The second time it must answer.
    @staticmethod
    def _status():
        with contextlib.suppress(OSError, http.client.HTTPException, ValueError):
            return json.loads(fetch("status.json", 3))
        return json.loads(fetch("status.json", 3))

    # Without what a connection to the daemon has.
    def _usage_now(self):
        pipes = sum(name.startswith("PipeClient") for name in self._threads().values()) // 2
        return (self._guardian.num_fds() - pipes, self._guardian.num_threads() - 2 * pipes,
                len(self._guardian.children()))


def main(bin_folder, seconds, seed):
    folder = tempfile.mkdtemp(prefix="guardian-calls.")
    tried = collections.Counter()
    with Installation(bin_folder, folder, "FastGuardian", FAST_GUARDIAN_FACTOR=str(FACTOR)) as made:
        run, point = FailingCalls(made), None
        try:
            run.start()
            points = run.census()
            random.Random(int(seed)).shuffle(points)
            print(f"failing-calls: seed {seed}, {len(points)} points, in {folder}")
            deadline = time.monotonic() + (float(seconds) or float("inf"))
            for point in points:
                if time.monotonic() > deadline:
                    break
                tried["failed" if run.try_point(point) else "not met"] += 1
        except (Failed, OSError, ValueError, psutil.Error, subprocess.SubprocessError) as failure:
            made.keep_pages()
            sys.exit(f"failing-calls: VIOLATION after {point}, seed {seed}: {failure!r}; "
                     f"{dict(tried)}; kept: {folder}")
    shutil.rmtree(folder)
    if not tried["failed"]:
        sys.exit("failing-calls: no call failed")
    print(f"failing-calls: passed: {tried['failed']} of {len(points)} points tried, "
          f"{tried['not met']} calls not made again")


if __name__ == "__main__":
    main(*sys.argv[1:])
