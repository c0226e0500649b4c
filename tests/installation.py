# The Guardian beside a stand-in for its daemon, in a folder of their own, as an installation has
# them: for the soak, the browser check and the demonstration. Needs port 8900.

import contextlib
import ctypes
import http.client
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import time
import urllib.request

import psutil

PORT = 8900
POLL_SECONDS = 0.05
PAGES = ("status.json", "", "status.php", "metrics", "threadreport.php", "logfiles.php",
         "vellumark_logs/daemon.log")
# What "fetch" throws; OSError also for a status other than 200.
NO_ANSWER = (OSError, http.client.HTTPException)
_PR_SET_CHILD_SUBREAPER = 36
# Without a proxy.
_OPENER = urllib.request.build_opener(urllib.request.ProxyHandler({}))


# The first thing that was not as it should be, in one line.
class Failed(Exception):
    pass


def require(holds, problem):
    if not holds:
        raise Failed(problem)


# Returns the seconds until the condition held. Calls "meanwhile" before each look at it.
def await_that(what, condition, limit_seconds, meanwhile=lambda: None):
    began = time.monotonic()
    while True:
        late = time.monotonic() - began > limit_seconds
        meanwhile()
        if condition():
            return time.monotonic() - began
        require(not late, f"not within {limit_seconds:.1f} s: {what}")
        time.sleep(POLL_SECONDS)


# The page's text.
def fetch(page="", limit_seconds=10):
    with _OPENER.open(f"http://127.0.0.1:{PORT}/{page}", timeout=limit_seconds) as answer:
        return answer.read().decode("utf-8", "replace")


# Whether status.json tells that all is well with the daemon.
def is_healthy(status):
    return all(status["checks"][name] for name in ("mutex", "pipe", "service"))


def answers():
    with contextlib.suppress(OSError):
        return "Guardian running" in fetch("status.php")
    return False


def _on_interruption(handler):
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGALRM):
        signal.signal(number, handler)


# A second signal must not interrupt the end that the first one brings.
def _interrupt(*_):
    _on_interruption(lambda *_: None)
    sys.exit("interrupted")


# A context that leaves no process behind: a process that loses its parent becomes a child of this
# program, which ends it by its id. A signal that interrupts the program also ends the context.
class Installation:
    _place = staticmethod(shutil.copy2)  # How a program gets to its place.

    def __init__(self, bin_folder, folder, guardian="VellumarkGuardian", **variables):
        self._refuse_what_is_in_use()
        self.folder = folder
        self.guardian_path = self.path("VellumarkGuardian")
        self.daemon_path = self.path("VellumarkCL")
        self.environment = {**os.environ, "TMPDIR": self.path("tmp"),
                            "VELLUMARKCL_HOME": self.path("home"), **variables}
        self.guardian = None
        self.launcher = []  # The Guardian is run by this command.
        for name in ("home/logs", "tmp"):
            os.makedirs(self.path(name))
        self._place(os.path.join(bin_folder, guardian), self.guardian_path)
        self._place(os.path.join(bin_folder, "VellumarkCL"), self.daemon_path)

    def __enter__(self):
        ctypes.CDLL(None).prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
        _on_interruption(_interrupt)
        return self

    def __exit__(self, *_):
        _on_interruption(lambda *_: None)
        if self.guardian and self.guardian.poll() is None:
            self.guardian.send_signal(signal.SIGCONT)
            self.guardian.terminate()
            psutil.wait_procs([psutil.Process(self.guardian.pid)], timeout=10)
        for _ in range(50):
            if not (left := psutil.Process().children()):
                break
            for each in left:
                each.kill()
            psutil.wait_procs(left, timeout=0.1)

    def path(self, name):
        return os.path.join(self.folder, name)

    # The file's text; empty when there is none.
    def read(self, name):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            return pathlib.Path(self.path(name)).read_text("utf-8", "replace")
        return ""

    # In the foreground, until it answers. Its output goes into the file guardian.out, unless
    # another open file is given.
    def start_guardian(self, output=None):
        self.launch_guardian(output)
        await_that("the Guardian's answer", answers, 30, self.require_guardian)

    # The same without waiting.
    def launch_guardian(self, output=None):
        with open(self.path("guardian.out"), "wb") as file:
            self.guardian = subprocess.Popen([*self.launcher, self.guardian_path],
                                             stdout=output or file, stderr=subprocess.STDOUT,
                                             env=self.environment, start_new_session=True)

    def require_guardian(self):
        status = self.guardian.poll()
        require(status is None, f"the Guardian ended, exit status {status}")

    # What the Guardian's command word prints.
    def command(self, word, limit_seconds=30):
        return subprocess.run([self.guardian_path, word], env=self.environment, check=False,
                              timeout=limit_seconds, capture_output=True, text=True).stdout

    # The daemon that runs now, also a stopped one; 0 for none.
    def daemon_pid(self):
        pid = self.read("home/daemon.pid").strip()
        with contextlib.suppress(OSError, ValueError):
            # A zombie has no executable.
            return int(pid) if os.readlink(f"/proc/{pid}/exe") == self.daemon_path else 0
        return 0

    def require_daemon(self, pid):
        now = self.daemon_pid()
        require(now == pid, f"the daemon was ended without need: PID {pid}, now {now}")

    # Replaces what was ordered of the stand-in before; none withdraws it.
    def order_faults(self, *words):
        with open(self.path("home/faults.draft"), "w", encoding="utf-8") as file:
            file.write("\n".join(words) + "\n")
        os.rename(self.path("home/faults.draft"), self.path("home/faults"))

    # As files, for whoever looks for the reason of a failure.
    def keep_pages(self):
        for page in ("status.json", "threadreport.php", ""):
            with contextlib.suppress(*NO_ANSWER):
                text = fetch(page, 2)
                pathlib.Path(self.path(f"page-{page or 'main'}")).write_text(text, "utf-8")

    @staticmethod
    def _refuse_what_is_in_use():
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", PORT)) == 0:
                sys.exit(f"port {PORT} is in use: is a Guardian running? Nothing was started.")
        for each in psutil.process_iter(["cmdline"]):
            line = " ".join(each.info["cmdline"] or ())
            if "VellumarkCL" in line:
                sys.exit(f"the Guardian would take this for its daemon, end it first: {line[:200]}")
