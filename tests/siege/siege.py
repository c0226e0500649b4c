# What clients can do to the Guardian's port, against the real executable: crowds of slow readers, a
# patient one, a leased log, floods; and the packet filter of docs/security.md. Runs in network
# namespaces of its own, see scripts/siege.
#   siege.py BIN_FOLDER DOCUMENT_WITH_THE_FILTER

import contextlib
import ctypes
import fcntl
import os
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time

import psutil

from installation import Failed, Installation, PORT, await_that, fetch, require

SERVER, SERVER_6 = "192.0.2.1", "2001:db8::1"
STRANGERS = [f"192.0.2.{number}" for number in range(10, 18)]
OUTSIDER, STRANGER_6, OUTSIDER_6 = "198.18.0.2", "2001:db8::2", "2001:db8:1::2"
PLACES, PLACES_OF_A_PEER = 256, 64
BIG_LOG, BIG_BYTES = "vellumark_logs/big.log", 2 * 1024 ** 3
PATIENT_SECONDS, PATIENT_BYTES_A_SECOND = 60, 4096
_CLONE_NEWNET = 0x40000000
_LIBC = ctypes.CDLL(None)


# Another machine on the same wire, as a network namespace. Who holds it ends with this program.
class Wire:
    def __init__(self):
        self._holder = subprocess.Popen(["unshare", "--net", "cat"], stdin=subprocess.PIPE)
        self._own = os.open("/proc/self/ns/net", os.O_RDONLY)
        name = f"/proc/{self._holder.pid}/ns/net"
        await_that("the other machine",
                   lambda: os.readlink(name) != os.readlink("/proc/self/ns/net"), 10)
        self._other = os.open(name, os.O_RDONLY)
        there = ["nsenter", f"--net={name}", "ip"]
        subprocess.run(["ip", "link", "add", "here", "type", "veth", "peer", "name", "there",
                        "netns", str(self._holder.pid)], check=True)
        for command, device, addresses in (
                (["ip"], "here", (f"{SERVER}/24", "198.18.0.1/24", f"{SERVER_6}/32")),
                (there, "there", (*(f"{each}/24" for each in (*STRANGERS, OUTSIDER)),
                                  f"{STRANGER_6}/32", f"{OUTSIDER_6}/32"))):
            for address in addresses:
                subprocess.run([*command, "address", "add", address, "dev", device,
                                *(["nodad"] if ":" in address else [])], check=True)
            subprocess.run([*command, "link", "set", device, "up"], check=True)

    # A connection from an address of the other machine that has asked for the page.
    def ask(self, address, page="status.php", receive_bytes=0, limit_seconds=30):
        require(_LIBC.setns(self._other, _CLONE_NEWNET) == 0, "no way to the other machine")
        try:
            client = socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET)
            client.bind((address, 0))
        finally:
            require(_LIBC.setns(self._own, _CLONE_NEWNET) == 0, "no way back")
        if receive_bytes:
            client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_bytes)
        client.settimeout(limit_seconds)
        client.connect((SERVER_6 if ":" in address else SERVER, PORT))
        client.sendall(f"GET /{page} HTTP/1.1\r\nHost: {SERVER}\r\n\r\n".encode())
        return client


# Takes a big log slowly, with an ordinary receive buffer, and then the rest of it.
class PatientClient(threading.Thread):
    def __init__(self, wire):
        super().__init__(daemon=True)
        self._client = wire.ask(STRANGERS[-2], BIG_LOG, limit_seconds=90)
        self.taken = 0

    def run(self):
        for _ in range(PATIENT_SECONDS):
            self.taken += len(self._client.recv(PATIENT_BYTES_A_SECOND))
            time.sleep(1)
        while self.taken < BIG_BYTES and (got := self._client.recv(1 << 20)):
            self.taken += len(got)


def a_patient_client_gets_all_of_its_log(_, __, patient):
    patient.join(300)
    require(patient.taken >= BIG_BYTES, f"{patient.taken} of {BIG_BYTES} bytes")


# All places are taken by readers of a big log who take a little now and then; the command words pass
# the strangers by who wait for a place.
def slow_readers_keep_nobody_out(wire, installation, _):
    crowd = [wire.ask(STRANGERS[i // PLACES_OF_A_PEER], BIG_LOG, 4096) for i in range(PLACES)]
    for client in crowd:
        require(client.recv(1024) != b"", "no place for a reader")
        client.setblocking(False)
    strangers = [wire.ask(STRANGERS[-1]) for _ in range(8)]
    require("running" in installation.command("status"), "no place for the command words")
    require("already running" in installation.command("start"), "a second Guardian was started")
    require(len(select.select(strangers, [], [], 0)[0]) < len(strangers),
            "the command words waited for strangers")

    def nibble():
        for client in crowd:
            with contextlib.suppress(OSError):
                client.recv(1024)
    await_that("a place for each stranger",
               lambda: len(select.select(strangers, [], [], 0)[0]) == len(strangers), 30, nibble)
    require(all(b"running" in each.recv(4096) for each in strangers), "no place for a stranger")


def a_leased_file_holds_nobody(_, installation, __):
    signal.signal(signal.SIGIO, signal.SIG_IGN)  # The wish to have the lease back.
    with open(installation.path("home/logs/leased.log"), "w", encoding="ascii") as leased:
        fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_WRLCK)
        require("EXCPTION: " in fetch("vellumark_logs/leased.log"), "it was served")


def floods_leave_no_memory_behind(_, installation, __):
    memory = psutil.Process(installation.guardian.pid).memory_info
    fetch()
    before = memory().rss
    for request in (b"GET /status.php HTTP/1.1\r\nX: " + b"x" * 65_000,
                    b"GET /vellumark_logs/big.log HTTP/1.1\r\n\r\n"):
        clients = [socket.create_connection(("127.0.0.1", PORT)) for _ in range(PLACES - 4)]
        for client in clients:
            client.sendall(request)
        require("running" in fetch("status.php"), "the flood keeps others out")
        for client in clients:
            client.close()
    try:
        await_that("memory back", lambda: memory().rss <= 1.2 * before, 15)
    finally:
        print(f"siege: resident memory after the floods, of before: {memory().rss / before:.2f}")


# As it stands in the document, and twice, as when the machine's start runs it again.
def the_packet_filter_lets_its_own_in(wire, *_):
    with open(sys.argv[2], encoding="utf-8") as document:
        lines = re.search(r"^```nft\n(.*?)^```$", document.read(), re.S | re.M).group(1)
    for _ in range(2):
        subprocess.run(["nft", "-f", "-"], input=lines, text=True, check=True)
    fetch("status.php")
    for address in (STRANGERS[0], STRANGER_6):
        client = wire.ask(address, limit_seconds=5)
        require(b"running" in client.recv(4096), f"{address} is kept out")
    for address in (OUTSIDER, OUTSIDER_6):
        with contextlib.suppress(TimeoutError):
            wire.ask(address, limit_seconds=2)
            raise Failed(f"{address} comes in")


def main():
    wire = Wire()
    with tempfile.TemporaryDirectory() as folder, Installation(sys.argv[1], folder) as installation:
        with open(installation.path("home/logs/big.log"), "wb") as big:
            big.truncate(BIG_BYTES)
        installation.start_guardian()
        await_that("the log folder", lambda: "big.log" in fetch("logfiles.php"), 30)
        patient = PatientClient(wire)
        patient.start()
        # The crowd comes after the patient client: when all places are taken, whoever has been
        # served longest gives way.
        failed = 0
        for case in (a_leased_file_holds_nobody, floods_leave_no_memory_behind,
                     a_patient_client_gets_all_of_its_log, slow_readers_keep_nobody_out,
                     the_packet_filter_lets_its_own_in):
            outcome = "passed"
            try:
                case(wire, installation, patient)
            except (Failed, OSError, subprocess.SubprocessError) as error:
                failed, outcome = 1, f"FAILED: {error}"
            print(f"siege: {case.__name__.replace('_', ' ')}: {outcome}", flush=True)
    sys.exit(failed)


main()
