"""What /proc says of processes. One that has gone meanwhile has no descriptors and no state."""

import os
from dataclasses import dataclass

GONE = (FileNotFoundError, ProcessLookupError, PermissionError)


@dataclass(frozen=True)
class Process:
    pid: int
    parent: int
    state: str
    executable: str


@dataclass(frozen=True)
class Usage:
    descriptors: int
    threads: int
    memory_mib: float

    def __str__(self):
        return f"{self.descriptors} descriptors, {self.threads} threads, {self.memory_mib:.1f} MiB"


def _read(path):
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def process(pid):
    """The process, also a zombie; None when there is none."""
    try:
        state, parent = _read(f"/proc/{pid}/stat").rpartition(")")[2].split()[:2]
    except GONE:
        return None
    try:
        executable = os.readlink(f"/proc/{pid}/exe")
    except GONE:
        executable = ""
    return Process(int(pid), int(parent), state, executable)


def processes():
    found = (process(name) for name in os.listdir("/proc") if name.isdigit())
    return [each for each in found if each is not None]


def runs(pid, executable):
    """Whether the process is that program and no zombie; a stopped one runs."""
    found = process(pid) if pid else None
    return found is not None and found.state not in "ZX" and found.executable == executable


def open_files(pid):
    """What the process's descriptors refer to."""
    targets = []
    try:
        for name in os.listdir(f"/proc/{pid}/fd"):
            try:
                targets.append(os.readlink(f"/proc/{pid}/fd/{name}"))
            except GONE:
                pass
    except GONE:
        pass
    return targets


def tcp_sockets():
    """The inodes of all TCP sockets, as the links of descriptors name them."""
    inodes = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            lines = _read(table).splitlines()[1:]
        except FileNotFoundError:
            continue
        inodes.update(f"socket:[{line.split()[9]}]" for line in lines)
    return inodes


def usage(pid):
    """None when the process has gone."""
    try:
        lines = (line.split(":") for line in _read(f"/proc/{pid}/status").splitlines())
        status = {parts[0]: parts[1].split() for parts in lines if len(parts) > 1}
        return Usage(len(os.listdir(f"/proc/{pid}/fd")), int(status["Threads"][0]),
                     int(status["RssAnon"][0]) / 1024)
    except (*GONE, KeyError):
        return None
