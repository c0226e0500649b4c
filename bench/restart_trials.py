# Measures how long a killed daemon is gone: the seconds from kill -9 until another one runs, in trials
# whose kills are spread evenly over the watchdog's tick, so that their mean is that of any moment.
#   restart_trials.py MODE BIN OUT
# MODE is "full", or "short" for one trial. BIN holds the executables. The results go into the file OUT
# as Google Benchmark writes them. Needs tests/ in PYTHONPATH, and namespaces for the full form, in
# which all trials run side by side, each in an installation of its own. They begin one after the
# other, so that no Guardian starts its daemon while others start theirs.

import concurrent.futures
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import installation

TICK_SECONDS = 10
PHASES = [0.1 + 0.2 * number for number in range(50)]  # Seconds behind a tick.
SECONDS_BETWEEN_TRIALS = 0.41  # Over two ticks no two fall together.
IN_NAMESPACES = pathlib.Path(__file__).parent.parent / "tests/support/in_namespaces"


def start_daemon(site):
    began = time.monotonic()
    subprocess.run(["/bin/sh", "-c", f"{site.daemon_path} start"], env=site.environment, check=True,
                   stdout=subprocess.DEVNULL)
    return time.monotonic() - began


def seconds_until_back(site):
    killed = site.daemon_pid()
    began = time.monotonic()
    os.kill(killed, 9)
    while site.daemon_pid() in (0, killed):
        installation.require(time.monotonic() - began < 3 * TICK_SECONDS,
                             "the daemon does not come back")
        time.sleep(0.005)
    return time.monotonic() - began


# The kill comes so many seconds behind the round that finds the daemon healthy.
def run_trial(bin_folder, phase):
    with tempfile.TemporaryDirectory() as folder, \
            installation.Installation(bin_folder, folder) as site:
        start = start_daemon(site)
        site.start_guardian()
        installation.await_that("a healthy round", lambda: installation.is_healthy(
            json.loads(installation.fetch("status.json"))), 30)
        time.sleep(phase)
        return {"start": start, "back": seconds_until_back(site)}


# In namespaces of its own, and so with a port 8900 and a process list of its own.
def run_apart(bin_folder, phase):
    command = [IN_NAMESPACES, sys.executable, "-B", __file__, "trial", bin_folder, str(phase)]
    return json.loads(subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout)


def run_all(bin_folder):
    with concurrent.futures.ThreadPoolExecutor(len(PHASES)) as pool:
        trials = []
        for phase in PHASES:
            trials.append(pool.submit(run_apart, bin_folder, phase))
            time.sleep(SECONDS_BETWEEN_TRIALS)
        return [trial.result() for trial in trials]


def counters(trials):
    start = statistics.median(trial["start"] for trial in trials)
    back = [trial["back"] for trial in trials]
    return {"name": "RestartAfterKill", "trials": len(back), "start_s": start,
            "longest_s": max(back), "longest_ticks": (max(back) - start) / TICK_SECONDS,
            "mean_s": statistics.mean(back), "mean_ticks": statistics.mean(back) / TICK_SECONDS}


def main(mode, bin_folder, out):
    trials = run_all(bin_folder) if mode == "full" else [run_trial(bin_folder, TICK_SECONDS / 2)]
    with open(out, "w", encoding="utf-8") as file:
        json.dump({"benchmarks": [counters(trials)]}, file)


if __name__ == "__main__":
    try:
        if sys.argv[1] == "trial":
            print(json.dumps(run_trial(sys.argv[2], float(sys.argv[3]))))
        else:
            main(*sys.argv[1:])
    except (installation.Failed, subprocess.CalledProcessError) as failure:
        sys.exit(str(failure))
