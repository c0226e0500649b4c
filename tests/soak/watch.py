"""What must hold at every moment, watched from outside by threads of their own."""

import json
import os
import re
import socket
import threading
import time
from dataclasses import dataclass

import machine

PORT = 8900
PAGES = ("status.json", "", "status.php", "status.json", "metrics", "logfiles.php",
         "threadreport.php")
PAGE_PERIOD = 0.1
PAGE_LIMIT = 1.0
LOOK_PERIOD = 0.25
STAY_LIMIT = 5.0  # For a zombie or a second Guardian: one between fork and exec looks like it.
TEMP_FILE_LIMIT = 60.0  # The longest command has 30 seconds, and 2 to be ended.
MAX_CONNECTIONS = 256
# A round is the interval, a "stop" that hangs for 20 + 2 seconds, a look of 5 + 2, a connect of 5.
ROUND_WATCHDOG, ROUND_REAL = 10, 36
DAEMON_MAY_OPEN = re.compile(r"(/dev/null|socket:\[\d+\]|.*/home/.*"
                             r"|anon_inode:\[(signalfd|eventfd|eventpoll)\])( \(deleted\))?")


class Violation(Exception):
    """The first thing that was not as it should be, as one line."""


@dataclass(frozen=True)
class Pace:
    """How fast the watchdog's time runs, and how much slower than a release the build is."""
    factor: int
    slowness: float

    def seconds(self, watchdog, real=0.0):
        """Real seconds for so many of the watchdog's and so many of the machine's."""
        return watchdog / self.factor + real * self.slowness


def fetch(page, limit_seconds=10):
    """The body of the page. Throws OSError."""
    with socket.create_connection(("127.0.0.1", PORT), timeout=limit_seconds) as connection:
        connection.sendall(f"GET /{page} HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n"
                           .encode())
        answer = b""
        while chunk := connection.recv(65536):
            answer += chunk
    head, _, body = answer.partition(b"\r\n\r\n")
    if not head.startswith(b"HTTP/1.1 200 "):
        raise OSError(f"the answer begins with {head[:60]}")
    return body.decode("utf-8", "replace")


class Watcher(threading.Thread):
    """Calls its look once a period until it is stopped; keeps the first violation."""

    def __init__(self, name, period):
        super().__init__(name=name, daemon=True)
        self._period = period
        self._stopping = threading.Event()
        self.violation = None

    def run(self):
        try:
            while not self._stopping.wait(self._period):
                self.look()
        except Violation as violation:
            self.violation = str(violation)
        except Exception as error:  # pylint: disable=broad-except
            self.violation = f"the {self.name} itself failed: {error!r}"

    def stop(self):
        self._stopping.set()
        self.join(30)

    def look(self):
        raise NotImplementedError


class PageWatcher(Watcher):
    """Every page answers in time, and the watchdog's rounds go on."""

    def __init__(self, pace):
        super().__init__("page watcher", PAGE_PERIOD)
        self._pace = pace
        self._limit = pace.seconds(0, PAGE_LIMIT)
        self._round_limit = pace.seconds(ROUND_WATCHDOG, ROUND_REAL)
        self._rounds = -1
        self._round_at = time.monotonic()
        self.count = 0
        self.longest = 0.0
        self.longest_page = ""
        self.longest_round = 0.0
        self.status = None  # The latest status.json; replaced whole.

    def look(self):
        page = PAGES[self.count % len(PAGES)]
        began = time.monotonic()
        try:
            body = fetch(page, self._limit)
        except OSError as error:
            raise Violation(f"page /{page} did not answer after {time.monotonic() - began:.3f} s: "
                            f"{error}") from None
        lasted = time.monotonic() - began
        self.count += 1
        if lasted > self.longest:
            self.longest, self.longest_page = lasted, "/" + page
        if lasted > self._limit:
            raise Violation(f"page /{page} took {lasted:.3f} s, the limit is {self._limit:.1f} s")
        if not body:
            raise Violation(f"page /{page} is empty")
        if page == "status.json":
            self._judge(json.loads(body))

    def _judge(self, status):
        self.status = status
        now = time.monotonic()
        rounds = status["counters"]["rounds"]
        lasted = now - self._round_at
        self.longest_round = max(self.longest_round, lasted)
        if rounds != self._rounds:
            self._rounds, self._round_at = rounds, now
        elif lasted > self._round_limit:
            raise Violation(f"the watchdog has made no round for {lasted:.1f} s, "
                            f"the limit is {self._round_limit:.1f} s")


class ProcessWatcher(Watcher):
    """One Guardian, no zombie, nothing inherited, nothing left behind, nothing without bound."""

    def __init__(self, installation):
        super().__init__("process watcher", LOOK_PERIOD)
        self._installation = installation
        self._guardian = installation.guardian_pid()
        self._seen_since = {}
        self._temp_seen_since = {}
        self.daemon_looks = 0
        self.most_descriptors = 0
        self.most_threads = 0
        self.most_memory = 0.0

    def look(self):
        status = self._installation.guardian_exit_status()
        if status is not None:
            raise Violation(f"the Guardian ended, exit status {status}")
        self._look_at_processes()
        self._look_at_usage()
        self._look_at_daemon()
        self._look_at_temp_folder()

    def _look_at_processes(self):
        now = time.monotonic()
        odd = {}
        for each in machine.processes():
            if each.state == "Z" and each.parent == self._guardian:
                odd[each.pid] = "a zombie of the Guardian"
            elif (each.executable == self._installation.guardian_path
                  and each.pid != self._guardian):
                odd[each.pid] = "a second Guardian"
        self._seen_since = {pid: self._seen_since.get(pid, now) for pid in odd}
        for pid, since in self._seen_since.items():
            if now - since > STAY_LIMIT:
                raise Violation(f"{odd[pid]}, PID {pid}, is there for {now - since:.1f} s")

    def _look_at_usage(self):
        usage = machine.usage(self._guardian)
        if usage is None:
            return
        self.most_descriptors = max(self.most_descriptors, usage.descriptors)
        self.most_threads = max(self.most_threads, usage.threads)
        self.most_memory = max(self.most_memory, usage.memory_mib)
        if usage.descriptors > MAX_CONNECTIONS + 100 or usage.threads > 60:
            raise Violation(f"the Guardian has {usage}")

    def _look_at_daemon(self):
        daemon = self._installation.daemon_pid()
        # The tables are read last: a socket that is in none of them when it is open is no TCP one.
        targets = machine.open_files(daemon) if daemon else []
        tcp = machine.tcp_sockets() if targets else set()
        for target in targets:
            if target in tcp or not DAEMON_MAY_OPEN.fullmatch(target):
                raise Violation(f"the daemon, PID {daemon}, has inherited {target}")
        self.daemon_looks += bool(targets)

    def _look_at_temp_folder(self):
        now = time.monotonic()
        names = self._installation.temp_files()
        self._temp_seen_since = {name: self._temp_seen_since.get(name, now) for name in names}
        for name, since in self._temp_seen_since.items():
            if now - since > TEMP_FILE_LIMIT:
                raise Violation(f"{name} is left in the temporary directory")


def listeners_beyond(pid):
    """The processes other than that one which hold a TCP socket that the port's owner holds."""
    tcp = machine.tcp_sockets()
    held = set(machine.open_files(pid)) & tcp
    return [each.pid for each in machine.processes()
            if each.pid != pid and each.pid != os.getpid()
            and held & set(machine.open_files(each.pid))]
