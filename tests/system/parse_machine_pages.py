"""Reads the pages "status.json" and "metrics" with real parsers and prints what both say.

Usage: parse_machine_pages.py STATUS_JSON METRICS
Exit status 1 when they differ or one cannot be parsed, 77 where the parser is not installed.
"""

import json
import sys

try:
    from prometheus_client.openmetrics.parser import text_string_to_metric_families
except ImportError:
    print("python3-prometheus-client is not installed")
    sys.exit(77)

PREFIX = "vellumark_guardian_"


def read_metrics(path):
    """The samples of the page, by name without its prefix and by the values of their labels."""
    with open(path, encoding="utf-8") as page:
        families = list(text_string_to_metric_families(page.read()))
    return {(sample.name.removeprefix(PREFIX), *sample.labels.values()): sample.value
            for family in families for sample in family.samples}


def line(title, json_values, metrics, name):
    """One line of what both say of the keys."""
    for key, value in json_values.items():
        if metrics[(name, key)] != value:
            sys.exit(f"{name} {key}: {value} in JSON, {metrics[(name, key)]} in the metrics")
    return title + " " + " ".join(f"{key}={int(value)}" for key, value in json_values.items())


def main():
    with open(sys.argv[1], encoding="utf-8") as page:
        status = json.load(page)
    metrics = read_metrics(sys.argv[2])
    checks = {name: status["checks"][name] for name in ("mutex", "pipe", "service")}
    totals = {name: action["total"] for name, action in status["actions"].items()}
    print(line("checks", checks, metrics, "check_ok"))
    print(line("actions", totals, metrics, "actions_total"))
    print("pid", status["daemon"]["pid"])
    if metrics[("build_info", status["version"], str(status["build"]))] != 1:
        sys.exit("the versions differ")


main()
