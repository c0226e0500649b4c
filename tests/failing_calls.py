# The running Guardian, of which a system call fails now and then. scripts/failing-calls runs it.
#   failing_calls.py BIN_FOLDER SECONDS SEED   SECONDS may be 0: every point once
#
# First a census: which calls each thread makes from main on, within some rounds in which all pages
# are asked for, and at the end. Then each of these calls fails once, with each error that its kind
# really returns. After a failure in a round the Guardian must be what it was before. After one in
# its start it is so too, or has ended with a line that says why; after one in its end it leaves
# nothing behind.

import collections
import contextlib
import glob
import json
import os
import random
import re
import shutil
import signal
import socket
import sqlite3
import subprocess
import sys
import tempfile
import time

import psutil

from installation import (NO_ANSWER, PAGES, Failed, Installation, await_that, fetch, is_healthy,
                          require)

# The watchdog's time; a round is a second. A lost wake-up of the main loop lasts 10 s by the machine's
# time, which would be a dead daemon if the watchdog's went by much faster.
FACTOR = "10"
CENSUS_ROUNDS = 16
MOST = 6  # Calls of a kind in a thread; later ones repeat what the first ones did.
MOST_OF_MAIN = 24
TIMER, STARTED = "GuardianTimer", "started by GuardianTimer"
ASKED = (*PAGES, "overview.html", "hold.html?minutes=1", "release.html", "healthz")
KINDS = {
    "open,openat": ("EMFILE", "EACCES"),
    "read,pread64,readv": ("EIO", "EINTR"),
    "pwrite64,writev": ("ENOSPC", "EIO"),
    "write": ("ENOSPC", "EAGAIN"),  # To standard output: one to an event descriptor cannot fail.
    "recvfrom,recvmsg": ("ENOMEM", "EINTR"),
    "sendto,sendmsg": ("ENOMEM", "EAGAIN"),
    "connect": ("EAGAIN", "EACCES"),
    "socket,eventfd2,epoll_create1,timerfd_create,memfd_create,pidfd_open": ("EMFILE",),
    "bind,listen,epoll_ctl": ("ENOMEM",),
    "poll": ("EINTR", "ENOMEM"),
    "accept,accept4": ("EMFILE", "ENOMEM", "EINTR"),
    "clone,clone3,vfork": ("EAGAIN", "ENOMEM"),
    "execve": ("ENOMEM", "EACCES"),
    "mmap": ("ENOMEM",),
    "fsync,fdatasync": ("EIO", "ENOSPC"),
    "rename,renameat,renameat2": ("ENOSPC", "EACCES"),
    "flock": ("EINTR", "ENOMEM"),
}
Point = collections.namedtuple("Point", "thread kind error number")


def ask_all():
    for page in ASKED[:-1]:  # The last one has another status when not all is well.
        require(fetch(page, 3), f"page /{page} is empty")


# The second time it must answer.
def status_now():
    with contextlib.suppress(*NO_ANSWER, ValueError):
        return json.loads(fetch("status.json", 3))
    return json.loads(fetch("status.json", 3))


class FailingCalls:
    def __init__(self, installation):
        self._installation = installation
        self._log = installation.path("strace.out")
        self._manager = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM | socket.SOCK_NONBLOCK)
        self._manager.bind(installation.environment["NOTIFY_SOCKET"])
        self._guardian = None
        self._pid = 0  # The daemon's.
        self._usage = ()

    # The points of the rounds, the start and the end, from what the threads do when nothing fails.
    def census(self):
        self.start()
        usages = collections.Counter()
        for _ in range(40):
            usages[self._usage_now()] += 1
            time.sleep(0.05)
        self._usage = usages.most_common(1)[0][0]
        rounds = self._points_of(lambda: self._let_rounds_go_by(CENSUS_ROUNDS))
        ends = self._points_of(self.end)
        self.start()
        return rounds, self._points({}), ends

    def _points_of(self, act):
        threads = self._threads()
        with self._traced(threads):
            act()
        return self._points(threads)

    def _points(self, threads):
        calls, points = collections.Counter(), set()
        kind_of = {name: kind for kind in KINDS for name in kind.split(",")}
        call = re.compile(r"^(\d+) +(?:(write)\(1,|(?!write\()(\w+)\()", re.M)
        for task, write, other in call.findall(self._installation.read("strace.out")):
            thread, kind = threads.get(int(task), STARTED), kind_of[write or other]
            calls[task, kind] += 1
            most = MOST_OF_MAIN if int(task) == self._guardian.pid else MOST
            if (number := calls[task, kind]) <= most:
                points.update(Point(thread, kind, error, number) for error in KINDS[kind])
        return sorted(points)

    # Traced from main on. Returns whether it runs; else it has said why not.
    def start(self, options=()):
        self._installation.launch_guardian()
        self._guardian = psutil.Process(self._installation.guardian.pid)
        await_that("main", lambda: self._guardian.status() == psutil.STATUS_STOPPED, 10)
        with self._traced([self._guardian.pid], options):
            self._guardian.send_signal(signal.SIGCONT)
            # A call has failed: the tracer would let the next child's fail as well.
            await_that("the start", lambda: self._has_failed() or self._is_settled(), 60)
        await_that("it is well or has ended", self._is_settled, 60)
        if self.has_ended():
            said = self._installation.read("guardian.out")
            require(self._installation.guardian.returncode == 1 and "cannot run: " in said, said)
            return False
        self._pid = self._pid or self._installation.daemon_pid()
        ask_all()
        return True

    def end(self):
        self._guardian.terminate()
        status = self._installation.guardian.wait(10)
        require(status == 0, f"exit status {status}")
        # A process that has lost the Guardian is a child of this program.
        await_that("no child is left", lambda: not [
            each for each in psutil.Process().children() if each.pid != self._pid
            and each.name() != "strace" and each.status() != psutil.STATUS_ZOMBIE], 5)
        # A report of a start that failed early stays there.
        left = {*os.listdir(self._installation.path("tmp"))} - {"VellumarkGuardian_Exceptions.log"}
        require(not left, f"left in the temporary folder: {left}")
        for name in glob.glob(self._installation.path("home/logs/*.cfg")):
            with contextlib.closing(sqlite3.connect(name)) as store:
                require(store.execute("PRAGMA integrity_check").fetchone() == ("ok",), "damage")
                require(store.execute("SELECT * FROM DATA WHERE NAME='Record'").fetchone(),
                        "the history is lost")

    # Each way to try a point returns whether the call was made, and so failed.
    def try_round(self, point):
        if self._traced_at(point, lambda: self._let_rounds_go_by(8, self._has_failed)):
            self._require_normal()
        return self._has_failed()

    def try_start(self, point):
        if not self.has_ended():
            self.end()
        if self.start(self._injection(point)):
            # The HTTP server takes a pipe where it gets no event descriptor.
            self._require_normal(spare="eventfd2" in point.kind)
        return self._has_failed()

    def try_end(self, point):
        return self._traced_at(point, self.end)

    def _traced_at(self, point, act):
        if self.has_ended():
            self.start()
        of_children = point.thread == STARTED
        threads = [each for each, name in self._threads().items()
                   if name == point.thread or of_children and name.startswith((TIMER, "Notifier"))]
        with self._traced(threads, self._injection(point), of_children):
            act()
        return self._has_failed()

    def _injection(self, point):
        paths = ["-P", self._installation.path("guardian.out")] if point.kind == "write" else []
        return ["-e", f"inject={point.kind}:error={point.error}:when={point.number}", *paths]

    def _require_normal(self, spare=0):
        self._installation.require_guardian()
        self._let_rounds_go_by(2)  # The round under way may be the one that failed.
        await_that("all is well again", self._is_well, 10)
        ask_all()
        self._installation.require_daemon(self._pid)
        descriptors, *others = self._usage
        usages = [(descriptors + more, *others) for more in range(spare + 1)]
        await_that(f"descriptors, threads and children are {self._usage}, now {self._usage_now()}",
                   lambda: self._usage_now() in usages, 10)

    @contextlib.contextmanager
    def _traced(self, threads, options=(), follow=True):
        open(self._log, "wb").close()
        command = ["strace", "-qq", "-o", self._log, "-e", f"trace={','.join(KINDS)}", *options,
                   "-e", "signal=none", *(["-f"] if follow else []),
                   "-p", ",".join(map(str, threads))]
        tracer = subprocess.Popen(command, stderr=subprocess.DEVNULL)
        await_that("strace looks at it", lambda: all(
            "TracerPid:\t0\n" not in self._task(each, "status") for each in threads), 10)
        try:
            yield
        finally:
            tracer.terminate()
            # A tracer that does not come to its end lets go of everybody when it is killed.
            with contextlib.suppress(subprocess.TimeoutExpired):
                tracer.wait(2)
            tracer.kill()
            tracer.wait(10)

    # Empty for a thread that has ended.
    def _task(self, thread, name):
        return self._installation.read(f"/proc/{self._guardian.pid}/task/{thread}/{name}")

    def _threads(self):
        return {each.id: self._task(each.id, "comm").strip() for each in self._guardian.threads()}

    def has_ended(self):
        return self._installation.guardian.poll() is not None

    # A daemon whose directories are not known is watched by its process alone.
    def _is_well(self):
        with contextlib.suppress(*NO_ANSWER, ValueError):
            status = status_now()
            unasked = not status["daemon"]["paths_received"]
            return is_healthy(status) or unasked and status["checks"]["service"]
        return False

    def _is_settled(self):
        return self.has_ended() or self._is_well()

    def _has_failed(self):
        return "(INJECTED)" in self._installation.read("strace.out")

    # Asks for the pages meanwhile, of which one may fail, and reads what the service manager gets.
    def _let_rounds_go_by(self, count, until=lambda: False):
        before = status_now()["counters"]["rounds"]

        def gone_by():
            for page in ASKED:
                with contextlib.suppress(*NO_ANSWER):
                    fetch(page, 3)
            with contextlib.suppress(BlockingIOError):
                while self._manager.recv(4096):
                    continue
            return status_now()["counters"]["rounds"] >= before + count
        await_that(f"{count} rounds", lambda: until() or gone_by(), 30)

    # Without what a connection to the daemon has.
    def _usage_now(self):
        pipes = sum(name.startswith("PipeClient") for name in self._threads().values()) // 2
        return (self._guardian.num_fds() - pipes, self._guardian.num_threads() - 2 * pipes,
                len(self._guardian.children()))


def main(bin_folder, seconds, seed):
    folder = tempfile.mkdtemp(prefix="guardian-calls.")
    tried = collections.Counter()
    with Installation(bin_folder, folder, "FastGuardian", FAST_GUARDIAN_FACTOR=FACTOR,
                      FAST_GUARDIAN_WAITS="1", NOTIFY_SOCKET=f"{folder}/manager",
                      WATCHDOG_USEC="40000000", VELLUMARK_GUARDIAN_NOTIFY="/bin/true") as made:
        run, point = FailingCalls(made), None
        try:
            phases = run.census()
            for points in phases:
                random.Random(int(seed)).shuffle(points)
            counts = dict(zip(("rounds", "start", "end"), map(len, phases)))
            print(f"failing-calls: seed {seed}, {counts} points, in {folder}")
            began = time.monotonic()
            for done, attempt in enumerate((run.try_round, run.try_start, run.try_end), 1):
                for point in phases[done - 1]:
                    if 0 < float(seconds) * done / len(phases) < time.monotonic() - began:
                        break
                    tried["failed" if attempt(point) else "not met"] += 1
        except (Failed, OSError, ValueError, psutil.Error, subprocess.SubprocessError) as failure:
            made.keep_pages()
            sys.exit(f"failing-calls: VIOLATION after {point}, seed {seed}: {failure!r}; "
                     f"{dict(tried)}; kept: {folder}")
    shutil.rmtree(folder)
    if not tried["failed"]:
        sys.exit("failing-calls: no call failed")
    print(f"failing-calls: passed: {tried['failed']} of {sum(counts.values())} points tried, "
          f"{tried['not met']} calls not made again")


if __name__ == "__main__":
    main(*sys.argv[1:])
