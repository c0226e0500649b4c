"""The Guardian over the stand-in daemon in a folder of their own, and what can be ordered there."""

import ctypes
import os
import shutil
import signal
import struct
import subprocess
import time

import machine

PIPE_NAME = "vellumark$qrnd$schedulermutex"
_PR_SET_CHILD_SUBREAPER = 36
_TEMP_BYTES = 16 * 1048576  # The thread sanitizer puts half a MiB of its own there, a process.
_TEMP_FILES = 64


class Installation:
    """Owns every process that comes of it: whoever loses its parent becomes our child, so that it
    is seen, ended and reaped by its id. One thread uses it; the questions are for any."""

    def __init__(self, bin_folder, folder, factor):
        self.folder = folder
        self.guardian_path = self.path("VellumarkGuardian")
        self.daemon_path = self.path("VellumarkCL")
        self.temp_folder = self.path("tmp")
        self._guardian = None
        self._mounted = False
        self.own_children = set()  # What else the caller started and waits for.
        self._orders = self.path("clock-orders")
        self.environment = {**os.environ, "LC_ALL": "C.UTF-8", "TMPDIR": self.temp_folder,
                            "VELLUMARKCL_HOME": self.path("home"), "SOAK_FACTOR": str(factor),
                            "SOAK_ORDERS": self._orders}
        shutil.copy2(os.path.join(bin_folder, "SoakGuardian"), self.guardian_path)
        shutil.copy2(os.path.join(bin_folder, "VellumarkCL"), self.daemon_path)
        for name in ("home/logs", "tmp"):
            os.makedirs(self.path(name))
        self._write_orders(0, 0)
        self.order_faults()
        ctypes.CDLL(None, use_errno=True).prctl(_PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)

    def path(self, name):
        return os.path.join(self.folder, name)

    # The Guardian.

    def start_guardian(self):
        self._mount_temp_folder()
        with open(self.path("guardian.out"), "wb") as output:
            self._guardian = subprocess.Popen([self.guardian_path], stdout=output,
                                              stderr=subprocess.STDOUT, env=self.environment,
                                              start_new_session=True)

    def guardian_pid(self):
        return self._guardian.pid

    def guardian_exit_status(self):
        """None while it runs."""
        return self._guardian.poll()

    def await_guardian_end(self, limit_seconds):
        """Its exit status; None when it did not end in time."""
        try:
            return self._guardian.wait(limit_seconds)
        except subprocess.TimeoutExpired:
            return None

    def command(self, word, limit_seconds):
        """What the Guardian's command word printed."""
        return subprocess.run([self.guardian_path, word], env=self.environment, check=False,
                              timeout=limit_seconds, capture_output=True, text=True).stdout

    def guardian_output(self):
        return self._read("guardian.out")

    # The daemon.

    def daemon_pid(self):
        """The daemon that runs now, also a stopped one; 0 for none."""
        text = self._read("home/daemon.pid").strip()
        pid = int(text) if text.isdigit() else 0
        return pid if machine.runs(pid, self.daemon_path) else 0

    def daemon_log(self):
        return self._read("home/logs/daemon.log")

    def daemon_starts(self):
        return self.daemon_log().count(": Started, PID ")

    def order_faults(self, *words):
        """Replaces what was ordered before. Inherited descriptors always stay open: they are looked
        for."""
        draft = self.path("home/faults.draft")
        with open(draft, "w", encoding="utf-8") as file:
            file.write("\n".join(("keep-open", *words)) + "\n")
        os.rename(draft, self.path("home/faults"))

    def delete_pipe(self):
        try:
            os.unlink(self.path(f"home/mutex/{PIPE_NAME}"))
        except FileNotFoundError:
            pass

    # The clock.

    def step_wall_clock(self, seconds):
        self._write_orders(seconds, 0)

    def leak(self, count):
        self._write_orders(0, count)

    # The temporary directory.

    def temp_files(self):
        try:
            return [name for name in os.listdir(self.temp_folder) if not name.startswith("ballast")]
        except NotADirectoryError:
            return []

    def can_fill_temp_folder(self):
        return self._mounted

    def fill_temp_folder(self):
        """Not a byte more fits in, though a file does."""
        with open(os.path.join(self.temp_folder, "ballast"), "wb", buffering=0) as ballast:
            try:
                for _ in range(2 * _TEMP_BYTES // 4096):
                    ballast.write(b"\0" * 4096)
            except OSError:
                return
        raise RuntimeError("the temporary directory cannot be filled")

    def break_temp_folder(self):
        """No file can be made any more: used up, or a file in its place."""
        if not self._mounted:
            os.rename(self.temp_folder, self.temp_folder + ".away")
            with open(self.temp_folder, "wb"):
                return
        for number in range(_TEMP_FILES):
            try:
                with open(os.path.join(self.temp_folder, f"ballast{number}"), "wb"):
                    pass
            except OSError:
                return

    def mend_temp_folder(self):
        if not self._mounted:
            os.replace(self.temp_folder + ".away", self.path("tmp.mended"))
            os.unlink(self.temp_folder)
            os.rename(self.path("tmp.mended"), self.temp_folder)
            return
        for name in os.listdir(self.temp_folder):
            if name.startswith("ballast"):
                os.unlink(os.path.join(self.temp_folder, name))

    def _mount_temp_folder(self):
        options = f"size={_TEMP_BYTES},nr_inodes={_TEMP_FILES},mode=0700"
        done = subprocess.run(["mount", "-t", "tmpfs", "-o", options, "tmpfs", self.temp_folder],
                              check=False, capture_output=True)
        self._mounted = done.returncode == 0

    # The end.

    def reap(self):
        """Lets go of orphans that have ended."""
        for child in self._adopted():
            if child.state == "Z":
                os.waitpid(child.pid, os.WNOHANG)

    def end(self):
        """Ends everything, whatever state it is in."""
        if self._guardian is not None and self._guardian.poll() is None:
            self._guardian.send_signal(signal.SIGCONT)
            self._guardian.terminate()
            if self.await_guardian_end(10) is None:
                self._guardian.kill()
                self._guardian.wait(5)
        for _ in range(50):
            left = self._adopted()
            if not left:
                break
            for each in left:
                os.kill(each.pid, signal.SIGKILL)
            time.sleep(0.1)
            self.reap()
        if self._mounted:
            subprocess.run(["umount", self.temp_folder], check=False)
            self._mounted = False

    # Those of our children that we did not start.
    def _adopted(self):
        own = {*self.own_children, self._guardian.pid if self._guardian else 0}
        return [each for each in machine.processes()
                if each.parent == os.getpid() and each.pid not in own]

    def _write_orders(self, wall_step_seconds, leaks):
        # In place: the Guardian has the file mapped.
        descriptor = os.open(self._orders, os.O_WRONLY | os.O_CREAT, 0o600)
        try:
            os.pwrite(descriptor, struct.pack("=qq", wall_step_seconds, leaks), 0)
        finally:
            os.close(descriptor)

    def _read(self, name):
        try:
            with open(self.path(name), encoding="utf-8", errors="replace") as file:
                return file.read()
        except FileNotFoundError:
            return ""
