# Measures time and memory at growing sizes, draws both and prints the orders of growth.
# scripts/growth runs it, and says what is measured.
#   growth.py BIN PICTURE
# BIN holds the executables. Needs tests/ in PYTHONPATH, and port 8900.

import collections
import http.client
import json
import math
import os
import pathlib
import socket
import statistics
import subprocess
import sys
import tempfile
import time

import psutil

import growth_picture
import installation

CONNECTIONS = (1, 2, 4, 8, 16, 32, 64, 128, 256)
LOG_FILES = (10, 50, 200, 1000, 4000, 12000, 25000, 50000)
ROUNDS = 31
LONGEST_WAIT = 10
PAGE = os.sysconf("SC_PAGESIZE")

Point = collections.namedtuple("Point", "size seconds bytes")
# What grows, and what its time and its memory are those of.
Curve = collections.namedtuple("Curve", "grows time memory points")
PARTS = {
    "ProcessList": ("lines of process list", "a look for the daemon", "heap, the peak"),
    "ThreadReport": ("threads in the report", "the report", "heap, the peak"),
    "Keys": ("keys in the store", "a write and a read", "heap, the peak"),
}


# Of the process's own threads.
def processor_seconds(pid):
    return time.clock_gettime(~pid << 3 | 2)


# The bytes that the kernel tells in that file of the process.
def memory(pid, file, name):
    with open(f"/proc/{pid}/{file}", encoding="ascii") as lines:
        return 1024 * next(int(line.split()[1]) for line in lines if line.startswith(name + ":"))


def resident(pid):
    return memory(pid, "smaps_rollup", "Rss")


# The resident memory without what is mapped from files.
def anonymous(pid):
    return memory(pid, "smaps_rollup", "Anonymous")


# Those that listen among them.
def tcp_sockets(pid):
    return len(psutil.Process(pid).connections("tcp"))


def open_and_ask(count):
    clients = []
    for _ in range(count):
        clients.append(socket.create_connection(("127.0.0.1", installation.PORT), LONGEST_WAIT))
        clients[-1].sendall(b"GET /status.php HTTP/1.1\r\nHost: localhost\r\n\r\n")
    for client in clients:
        installation.require(b"running" in client.recv(4096), "a connection gets no answer")
    return clients


# The bytes of the Guardian while all are open. It has the end of each noticed when this returns.
def connect(pid, count):
    at_rest = tcp_sockets(pid)
    clients = open_and_ask(count)
    installation.require(tcp_sockets(pid) == at_rest + count, "a connection was closed early")
    most = anonymous(pid)
    for client in clients:
        client.close()
    installation.await_that("the end of the connections", lambda: tcp_sockets(pid) == at_rest,
                            LONGEST_WAIT)
    return most


# The bytes of the Guardian at their peak.
def list_log_files(pid, count):
    # Forgets the last peak.
    pathlib.Path(f"/proc/{pid}/clear_refs").write_text("5", encoding="ascii")
    links = installation.fetch("logfiles.php").count("<a href=")
    installation.require(links >= count, f"the page shows {links} of {count} log files")
    return memory(pid, "status", "VmHWM")


# The medians of the processor time and of the bytes that the work, of that size, returns.
def median_cost(pid, work, size):
    rounds = []
    for _ in range(ROUNDS):
        began = processor_seconds(pid)
        most = work(pid, size)
        rounds.append((processor_seconds(pid) - began, most))
    return map(statistics.median, zip(*rounds))


def print_left(what, before, now):
    print(f"growth: {what}: {(now - before) / 1e3:,.0f} kB are left afterwards")


def measure_log_files(pid, folder):
    before = resident(pid)
    points = []
    for count in LOG_FILES:
        for number in range(count):
            pathlib.Path(folder, f"profile-{number:05}.log").touch()
        seconds, most = median_cost(pid, list_log_files, count)
        points.append(Point(count, seconds, max(PAGE, most - before)))
    time.sleep(2)  # The Guardian looks after its connections a last time.
    print_left("log files", before, resident(pid))
    return Curve("log files", "the page of all log files", "resident, the peak", points)


# The memory is measured at once, before the next round of the watchdog takes some.
def measure_connections(pid):
    before = anonymous(pid)
    grown = [max(PAGE, connect(pid, count) - before) for count in CONNECTIONS]
    time.sleep(2)
    print_left("connections", before, anonymous(pid))
    seconds = [next(median_cost(pid, connect, count)) for count in CONNECTIONS]
    return Curve("connections", "open, ask, close each", "heap while open",
                 list(map(Point, CONNECTIONS, seconds, grown)))


def measure_guardian(bin_folder):
    with tempfile.TemporaryDirectory() as folder, \
            installation.Installation(bin_folder, folder) as site:
        site.start_guardian()
        installation.await_that("a healthy round", lambda: installation.is_healthy(
            json.loads(installation.fetch("status.json"))), 30)
        installation.fetch("logfiles.php")  # The first page of its kind maps code.
        # First: afterwards the heap has no free pages in which connections could hide.
        log_files = measure_log_files(site.guardian.pid, site.path("home/logs"))
        return [measure_connections(site.guardian.pid), log_files]


def measure_parts(bin_folder):
    lines = subprocess.run([os.path.join(bin_folder, "growth_curves")], check=True, timeout=240,
                           stdout=subprocess.PIPE, text=True).stdout.splitlines()
    curves = {name: Curve(*words, []) for name, words in PARTS.items()}
    for name, *numbers in map(str.split, lines):
        curves[name].points.append(Point(int(numbers[0]), float(numbers[1]), int(numbers[2])))
    return list(curves.values())


# The exponent of the power of the size that the upper half of these values follow.
def order(points, values):
    half = len(points) // 2
    return statistics.linear_regression([math.log(point.size) for point in points[half:]],
                                        [math.log(value) for value in values[half:]]).slope


def row(curve):
    sizes, seconds, grown = zip(*curve.points)
    return (f"| {curve.grows}, {sizes[0]:,} to {sizes[-1]:,} | {curve.time} | "
            f"{seconds[-1] / seconds[0]:.3g} x | {order(curve.points, seconds):.2f} | "
            f"{curve.memory} | {grown[0] / 1e3:,.0f} to {grown[-1] / 1e3:,.0f} kB | "
            f"{order(curve.points, grown):.2f} |")


def main(bin_folder, picture):
    curves = measure_guardian(bin_folder) + measure_parts(bin_folder)
    pathlib.Path(picture).write_text(growth_picture.draw(curves), encoding="utf-8")
    print("| size | time of | largest / smallest | order | memory | from, to | order |",
          "|---|---|---|---|---|---|---|", *map(row, curves), sep="\n")


if __name__ == "__main__":
    try:
        main(*sys.argv[1:])
    except (installation.Failed, OSError, http.client.HTTPException,
            subprocess.SubprocessError) as failure:
        sys.exit(f"growth: {failure}")
