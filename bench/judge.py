# Prints the promised figures beside what was measured. scripts/bench runs it.
#   judge.py MODE FILTER FOLDER
# MODE is "full", or "short" to judge no figure. FILTER is "." when every benchmark was to run. FOLDER
# holds Google Benchmark's JSON files.
# Ends with 1 when a figure falls short, is missing or could not be measured.

import csv
import json
import pathlib
import re
import sys

# A line of promises.tsv, whose head says what each column holds.
COLUMNS = ("benchmark", "counter", "relation", "reach", "goal", "unit", "ours", "baseline", "figure",
           "baseline_in_words")
HEADING = ("| figure | baseline | measured baseline | ours | figure | reach | |\n"
           "|---|---|---|---|---|---|---|")


# The results by the benchmark's name without Google Benchmark's own endings. A program of which no
# benchmark was wanted leaves its file empty.
def read_results(folder):
    results = {}
    for path in sorted(pathlib.Path(folder).glob("*.json")):
        if path.stat().st_size == 0:
            continue
        for result in json.loads(path.read_text(encoding="utf-8"))["benchmarks"]:
            name = re.sub(r"/(iterations:|manual_time|real_time).*", "", result["name"])
            results[name] = result
    return results


def read_promises():
    path = pathlib.Path(__file__).with_name("promises.tsv")
    with open(path, encoding="utf-8", newline="") as file:
        lines = (line for line in file if not line.startswith("#"))
        return list(csv.DictReader(lines, COLUMNS, delimiter="\t", quoting=csv.QUOTE_NONE))


def shown(value, unit):
    if unit != "/s":
        number = f"{value:.0f}" if value >= 1000 else f"{value:.3g}"
        return f"{number} {unit}".rstrip()
    for size, prefix in ((1e6, "M"), (1e3, "k")):
        if value >= size:
            return f"{value / size:.3g} {prefix}/s"
    return f"{value:.3g} /s"


# A counter as promises.tsv describes it: "NAME:UNIT", or "-" for none.
def counter(result, described):
    if described == "-":
        return "-"
    name, _, unit = described.partition(":")
    return shown(result[name], unit) if name in result else "missing"


# Whether the result is on the right side of the promise's reach or goal.
def meets(result, promise, bound):
    value, bound = result[promise["counter"]], float(promise[bound])
    return value <= bound if promise["relation"] == "<=" else value >= bound


def verdict(result, promise, mode):
    if "error_message" in result:
        return f"broken: {result['error_message']}"
    if promise["counter"] not in result:
        return "missing"
    if mode == "short":
        return "works"
    if not meets(result, promise, "reach"):
        return "FALLS SHORT"
    return "reached" if promise["goal"] == "-" or meets(result, promise, "goal") else "not the goal"


def row(result, promise, judged):
    note = f" ({result['label']})" if result.get("label") else ""
    relation = "at most" if promise["relation"] == "<=" else "at least"
    reach = f"{relation} {shown(float(promise['reach']), promise['unit'])}"
    if promise["goal"] != "-":
        reach += f", goal {shown(float(promise['goal']), promise['unit'])}"
    cells = (promise["figure"] + note, promise["baseline_in_words"],
             counter(result, promise["baseline"]), counter(result, promise["ours"]),
             counter(result, f"{promise['counter']}:{promise['unit']}").replace("missing", "-"),
             reach, judged)
    return f"| {' | '.join(cells)} |"


def main(mode, chosen, folder):
    results, promises = read_results(folder), read_promises()
    rows = []
    failures = 0
    for promise in promises:
        if promise["benchmark"] not in results and chosen != ".":
            continue
        result = results.get(promise["benchmark"], {})
        judged = verdict(result, promise, mode)
        failures += judged not in ("reached", "not the goal", "works")
        rows.append(row(result, promise, judged))
    if rows:
        print(HEADING, *rows, sep="\n")
    for name in sorted(results.keys() - {promise["benchmark"] for promise in promises}):
        if "error_message" in results[name]:
            print(f"bench: {name} is broken: {results[name]['error_message']}")
            failures += 1
    failures += not rows
    print(f"bench: {len(rows)} figures, {failures} of them not as they should be")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
