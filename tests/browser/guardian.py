"""The Guardian in the foreground over the stand-in daemon, in a folder of their own."""

import os
import shutil
import signal
import socket
import subprocess

from check import CheckFailed, await_that, require

PORT = 8900
MAIN_PAGE = f"http://localhost:{PORT}/"


def refuse_what_is_in_use():
    with socket.socket() as probe:
        taken = probe.connect_ex(("127.0.0.1", PORT)) == 0
    require(not taken, f"port {PORT} is in use: is a Guardian running? Nothing was started")
    listing = subprocess.run(["ps", "-ef", "--columns", "1000"], capture_output=True, text=True,
                             errors="replace", check=True, timeout=10).stdout
    daemons = [line for line in listing.splitlines()
               if "VellumarkCL" in line and "defunct" not in line]
    require(not daemons, f"the Guardian would take this for its daemon: {''.join(daemons)[:200]}")


def runs(pid):
    """Whether the process is there and no zombie."""
    try:
        with open(f"/proc/{pid}/stat", encoding="utf-8", errors="replace") as file:
            return file.read().rpartition(")")[2].split()[0] not in "ZX"
    except (FileNotFoundError, ProcessLookupError):
        return False


class Guardian:
    """Side by side, as an installation has them: the daemon's path derives from the Guardian's."""

    def __init__(self, bin_folder, folder):
        self._folder = folder
        self._process = None
        self._environment = {**os.environ, "VELLUMARKCL_HOME": self._path("home"),
                             "TMPDIR": self._path("tmp")}
        self.daemon_path = self._path("VellumarkCL")
        self.logs_folder = self._path("home/logs")
        for name in ("VellumarkGuardian", "VellumarkCL"):
            shutil.copy2(os.path.join(bin_folder, name), folder)
        for name in ("home/logs", "tmp"):
            os.makedirs(self._path(name))

    def start(self):
        """Starts the daemon, then the Guardian, and waits until that answers."""
        self._daemon_command("start")
        with open(self._path("guardian.out"), "wb") as output:
            self._process = subprocess.Popen([self._path("VellumarkGuardian")], stdout=output,
                                             stderr=subprocess.STDOUT, env=self._environment)
        await_that("the Guardian's line about its port", self._listens, 20)

    def end(self):
        """Ends both, whatever state they are in."""
        if self._process is not None and self._process.poll() is None:
            self._process.terminate()
            try:
                self._process.wait(5)
            except subprocess.TimeoutExpired:
                self._process.kill()
                self._process.wait(5)
        pid = self.daemon_pid()
        if pid and runs(pid) and os.readlink(f"/proc/{pid}/exe") == self.daemon_path:
            os.kill(pid, signal.SIGKILL)

    def has_ended(self):
        return self._process.poll() is not None

    def pid(self):
        return self._process.pid

    def exit_code(self):
        return self._process.returncode

    def output(self):
        try:
            with open(self._path("guardian.out"), encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""

    def left_in_temp_folder(self):
        return os.listdir(self._path("tmp"))

    def order_fault(self, word):
        """Replaces what was ordered of the stand-in before; none withdraws it."""
        with open(self._path("home/faults"), "w", encoding="utf-8") as file:
            file.write(word + "\n")

    def daemon_pid(self):
        """The pid that the daemon wrote; 0 for none."""
        try:
            with open(self._path("home/daemon.pid"), encoding="utf-8") as file:
                return int(file.read().strip() or 0)
        except FileNotFoundError:
            return 0

    def daemon_runs(self):
        return self.daemon_pid() != 0 and runs(self.daemon_pid())

    def _listens(self):
        if self.has_ended():
            raise CheckFailed(f"the Guardian ended with exit code {self.exit_code()}")
        return f"Web Status Server Active on Port {PORT}\n" in self.output()

    def _daemon_command(self, word):
        done = subprocess.run([self.daemon_path, word], env=self._environment, timeout=30,
                              capture_output=True, text=True, check=False)
        require(done.returncode == 0, f"the stand-in's {word} failed: {done.stdout}{done.stderr}")

    def _path(self, name):
        return os.path.join(self._folder, name)
