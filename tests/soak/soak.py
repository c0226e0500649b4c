# The Guardian under faults in an order of chance, judged from outside. scripts/soak runs it; the
# faults and their bounds stand in stories.py.
#   soak.py BIN_FOLDER MINUTES SEED FACTOR SLOWNESS STORY   STORY is one story's name, or empty

import collections
import contextlib
import glob
import json
import os
import random
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

import psutil

from installation import (NO_ANSWER, PAGES, POLL_SECONDS, Failed, Installation, await_that, fetch,
                          is_healthy, require)
from stories import DEAD, LOOK, SILENCE, STORIES, TICK, Bound, restarted

PAGE_LIMIT = 1.0
# The longest round: a "stop" that hangs for 20 + 2 seconds, a look of 5 + 2, a connect of 5.
ROUND = Bound(1, 0, 36)
HEALTHY = Bound(3, SILENCE, 5)
# A process between fork and exec looks like its parent; a command has 30 + 2 seconds.
PROCESS_STAY, TEMP_FILE_STAY = 5, 60
# Descriptors, threads and MiB of memory that a Guardian at rest may have more than at first.
MORE = (4, 3, 8)
TEMP_BYTES, TEMP_FILES = 16 * 1048576, 64
DAEMON_MAY_OPEN = re.compile(r"(/dev/null|socket:\[\d+\]|.*/home/.*"
                             r"|anon_inode:\[(signalfd|eventfd|eventpoll)\])( \(deleted\))?")


# Nobody reads the Guardian's system log, nor its standard error, on which a sanitizer would report.
# Where mounts are allowed, its temporary directory can be full.
class SoakInstallation(Installation):
    def __init__(self, bin_folder, folder, factor, has_sanitizer):
        super().__init__(bin_folder, folder, "FastGuardian", FAST_GUARDIAN_FACTOR=factor)
        self._mount, self._temp = self.path("tmp"), self.path("tmp/now")
        self.environment["TMPDIR"] = self._temp
        self.order_faults()
        options = f"size={TEMP_BYTES},nr_inodes={TEMP_FILES},mode=0700"
        self.mounted = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", self._mount],
                                      check=False, capture_output=True).returncode == 0
        os.mkdir(self._temp)
        if self.mounted:
            self._silence_system_log()
        if not has_sanitizer:
            self._stuff_standard_error()

    def __exit__(self, *failure):
        super().__exit__(*failure)
        if self.mounted:
            subprocess.run(["umount", self._mount], check=True)

    # In a mount namespace that is the Guardian's alone.
    def _silence_system_log(self):
        os.mkdir(self.path("dev"))
        self._log = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._log.bind(self.path("dev/log"))
        self.launcher += ["unshare", "--mount", "sh", "-c", f"cd '{self.path('dev')}' && "
                          "for node in null urandom; do touch $node && "
                          "mount --bind /dev/$node $node || exit; done; mount --rbind . /dev && "
                          'exec "$0" "$@"']

    def _stuff_standard_error(self):
        os.mkfifo(self.path("stderr"))
        self._full = os.open(self.path("stderr"), os.O_RDWR | os.O_NONBLOCK)
        os.write(self._full, bytes(1 << 20))
        self.launcher += ["sh", "-c", f"exec \"$0\" 2<>'{self.path('stderr')}'"]

    # What the daemon inherits stays open in it, so that it can be seen.
    def order_faults(self, *words):
        super().order_faults("keep-open", *words)

    def temp_files(self):
        return os.listdir(self._temp) if os.path.exists(self._temp) else []

    # Not a byte more fits in, though a file does.
    def fill_temp(self):
        with open(self.path("tmp/ballast"), "wb", 0) as file, contextlib.suppress(OSError):
            file.write(bytes(TEMP_BYTES))

    # No file can be made any more.
    def use_up_temp(self):
        with contextlib.suppress(OSError):
            for number in range(TEMP_FILES + 1):
                os.mknod(self.path(f"tmp/ballast{number}"))

    def lose_temp(self):
        os.rename(self._temp, self.path("tmp/lost"))

    def mend(self):
        self.order_faults()
        if not os.path.exists(self._temp):
            os.rename(self.path("tmp/lost"), self._temp)
        for path in glob.glob(self.path("tmp/ballast*")):
            os.unlink(path)


# One run. Its public members are what the stories are told in.
class Soak:
    def __init__(self, installation, seed, factor, slowness):
        self.installation = installation
        self.chance = random.Random(seed)
        self.pid = 0  # The daemon that is to run.
        self.starts = 0
        self.story = "start"
        self._status = None
        self._factor, self._slowness = factor, slowness
        self._began = self._round_at = time.monotonic()
        self._round = -1
        self._usage = self._first_usage = ()
        self._since = {}  # When each thing that must go again was first seen.
        self._counts = collections.Counter()

    # Of the machine's time.
    def seconds(self, bound):
        return (bound.rounds * TICK + bound.watchdog) / self._factor \
            + (bound.rounds * LOOK + bound.machine) * self._slowness

    def await_that(self, what, condition, bound):
        await_that(what, condition, self.seconds(bound), self._look)

    # So many rounds the same daemon runs, or something else is done again and again.
    def hold(self, rounds, act=None):
        end = time.monotonic() + rounds * TICK / self._factor
        while time.monotonic() < end:
            self._look()
            (act or self.require_same_daemon)()
            time.sleep(POLL_SECONDS)

    def require_same_daemon(self):
        self.installation.require_daemon(self.pid)

    def run(self, minutes, only):
        self.installation.start_guardian()
        restarted(self, DEAD)
        self._await_healthy()
        self._play(STORIES[0])  # What is taken once and kept, is taken here.
        self._first_usage = self._usage
        for story in self._draw(self._began + minutes * 60, only):
            self._play(story)
        self.story = "end"
        self._end()

    def summary(self):
        return (f"{self.starts} starts of the daemon, {dict(self._counts)}; "
                f"descriptors, threads, MiB at rest: {self._first_usage} to {self._usage}")

    # Each story comes once, in an order of chance, before any comes again; one that may take longer
    # than is left comes no more.
    def _draw(self, deadline, only):
        played = collections.Counter()
        kinds = [each for each in STORIES if only in ("", each.name)
                 and (self.installation.mounted or "directory" not in each.name)]
        while fitting := [each for each in kinds
                          if time.monotonic() + self.seconds(each.bound) < deadline]:
            story = min(fitting, key=lambda each: (played[each.name], self.chance.random()))
            played[story.name] += 1
            yield story

    def _play(self, story):
        self.story = story.name
        self._counts["faults"] += 1
        began = time.monotonic()
        for step in story.steps:
            step(self)
        story.outcome(self, story.bound)
        self.installation.mend()
        self._await_healthy()
        print(f"soak: {began - self._began:7.1f} s  {story.name}: {time.monotonic() - began:.1f} s")
        self._rest()

    def _await_healthy(self):
        def is_well():
            self.require_same_daemon()
            return is_healthy(self._status) and self._status["daemon"]["pid"] == str(self.pid)
        self.await_that("all is well again", is_well, HEALTHY)
        starts = self.installation.read("home/logs/daemon.log").count(": Started, PID ")
        require(starts == self.starts, f"{starts} starts of the daemon instead of {self.starts}")

    # The least of two rounds: a round has a shell, and its page has a connection.
    def _rest(self):
        usages = []

        def look():
            guardian = psutil.Process(self.installation.guardian.pid)
            memory = guardian.memory_info()
            usages.append((guardian.num_fds(), guardian.num_threads(),
                           round((memory.rss - memory.shared) / 1048576, 1)))
        self.hold(2, look)
        self._usage = min(usages)
        for now, first, more in zip(self._usage, self._first_usage, MORE):
            # Sanitizers keep the memory that is freed.
            require(now <= first + more or (more == MORE[2] and self._slowness > 1),
                    f"the Guardian at rest has grown from {self._first_usage} to {self._usage}")
        self.await_that("the temporary directory is empty",
                        lambda: not self.installation.temp_files(), Bound(0, 0, 3))

    def _end(self):
        fetch("terminateguardian.php")
        status = self.installation.guardian.wait(self.seconds(Bound(0, 0, 5)))
        # A sanitizer's report makes it another than 0.
        require(status == 0, f"the Guardian ended with {status}; its output: guardian.out")
        require(not self.installation.temp_files(), "files are left in the temporary directory")
        with contextlib.suppress(psutil.TimeoutExpired):
            psutil.Process(self.pid).wait(1)
            raise Failed("the daemon did not outlive the Guardian")
        require(self._counts["looks into the daemon"] and self._counts["faults"] > 1,
                "there was no time for a fault, or the daemon could never be looked into")

    # What must hold at every moment.

    def _look(self):
        self.installation.require_guardian()
        self._look_at_page(PAGES[self._counts["pages"] % len(PAGES)])
        self._look_at_processes()
        self._look_into_daemon(self.installation.daemon_pid())

    def _look_at_page(self, page):
        limit = PAGE_LIMIT * self._slowness
        began = time.monotonic()
        try:
            text, problem = fetch(page, limit), "it is empty, or late"
        except NO_ANSWER as error:
            text, problem = "", error
        now = time.monotonic()
        require(text and now - began <= limit,
                f"page /{page} after {now - began:.3f} s: {problem}")
        self._counts["pages"] += 1
        if page == "status.json":
            self._status = json.loads(text)
            if self._status["counters"]["rounds"] != self._round:
                self._round, self._round_at = self._status["counters"]["rounds"], now
            require(now - self._round_at <= self.seconds(ROUND),
                    f"the watchdog has made no round for {now - self._round_at:.1f} s")

    # An orphan that has ended is reaped here.
    def _look_at_processes(self):
        stays = {f"{name} in the temporary directory": TEMP_FILE_STAY
                 for name in self.installation.temp_files()}
        guardian = self.installation.guardian.pid
        for each in psutil.Process().children(recursive=True):
            with contextlib.suppress(psutil.Error, ChildProcessError):  # It ended meanwhile.
                is_zombie, parent = each.status() == psutil.STATUS_ZOMBIE, each.ppid()
                if is_zombie and parent == guardian:
                    stays[f"a zombie of the Guardian, PID {each.pid}"] = PROCESS_STAY
                elif each.exe() == self.installation.guardian_path and each.pid != guardian:
                    stays[f"a second Guardian, PID {each.pid}"] = PROCESS_STAY
                elif is_zombie:
                    os.waitpid(each.pid, os.WNOHANG)
        now = time.monotonic()
        self._since = {what: self._since.get(what, now) for what in stays}
        for what, since in self._since.items():
            require(now - since <= stays[what], f"{what} is there for {now - since:.1f} s")

    def _look_into_daemon(self, pid):
        try:
            inherited = [f"TCP {each.laddr}" for each in psutil.Process(pid).connections("tcp")]
            targets = [os.readlink(each) for each in os.scandir(f"/proc/{pid}/fd")]
        except (OSError, psutil.Error):
            return  # It ended, or closed something, meanwhile.
        self._counts["looks into the daemon"] += 1
        inherited += [each for each in targets if not DAEMON_MAY_OPEN.fullmatch(each)]
        require(not inherited, f"the daemon, PID {pid}, has inherited {', '.join(inherited)}")


def main(bin_folder, minutes, seed, factor, slowness, only):
    folder = tempfile.mkdtemp(prefix="guardian-soak.")
    print(f"soak: seed {seed}, {minutes} minutes, time {factor}-fold, in {folder}")
    with SoakInstallation(bin_folder, folder, factor, float(slowness) > 1) as installation:
        if not installation.mounted:
            print("soak: nothing can be mounted: the temporary directory is never full or unusable")
        run = Soak(installation, int(seed), int(factor), float(slowness))
        try:
            run.run(float(minutes), only)
        except Exception as failure:  # Whatever failed, the folder is kept.
            installation.keep_pages()
            sys.exit(f'soak: VIOLATION during "{run.story}", seed {seed}, load '
                     f"{os.getloadavg()[0]}: {failure!r}; {run.summary()}; kept: {folder}")
    shutil.rmtree(folder)
    print(f"soak: passed, seed {seed}: {run.summary()}")


if __name__ == "__main__":
    main(*sys.argv[1:])
