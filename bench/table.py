#!/usr/bin/env python3
"""Prints the results of the benchmark programs as one table of ratios.

Usage: table.py RESULT.json...  (Google Benchmark's JSON, one file for each run of a program)

A run gives each operation the median over its repetitions, divided by the median of the operation's limit
in the same run; what is shown is the median over the runs. The spread is half the distance between the
quartiles of our ratio over the runs: a difference to the goal that is smaller means nothing.
"""
import json
import statistics
import sys

# Operation, and how many times its limit it may cost.
GOALS = [
    ("refused record", 1.5),
    ("refused record, 2 threads", 1.6),
    ("refused trace", 1.5),
    ("refused, others switched on", 4.0),
    ("accepted, one file", 1.06),
    ("accepted, both files", 1.04),
    ("conf_load", 4.0),
    ("palloc 16", 1.9),
    ("palloc 64", 1.9),
    ("palloc 256", 2.3),
    ("alloc and free", 2.2),
    ("table get, 500 keys", 1.4),
    ("table get, 50000 keys", 1.8),
    ("table get absent, 500 keys", 2.0),
    ("table get absent, 50000 keys", 1.8),
    ("table put, known key", 1.5),
    ("table put, new key", 2.6),
    ("table remove", 1.9),
    ("counters of an interface", 1.2),
    ("operational state", 1.2),
    ("shell command", 1.1),
    ("get 16", 1.3),
    ("get 200", 1.3),
    ("get 1500", 1.3),
    ("get absent", 2.0),
    ("put tmpfs", 1.05),
    ("put disk", 1.05),
    ("open and close tmpfs", 1.5),
    ("open and close disk", 1.05),
    ("request, one client", 1.17),
    ("request, eight in flight", 1.28),
    ("request, 1000 idle", 1.17),
]


def read_run(path):
    """Median nanoseconds of one run, by operation and then by who was measured."""
    with open(path, encoding="utf-8") as file:
        repetitions = json.load(file)["benchmarks"]
    times = {}
    for repetition in repetitions:
        if repetition["run_type"] != "iteration":
            continue
        if repetition.get("error_occurred"):
            sys.exit(f"{repetition['name']}: {repetition['error_message']}")
        operation, who = repetition["name"].split("/")[:2]
        times.setdefault(operation, {}).setdefault(who, []).append(repetition["real_time"])
    return {operation: {who: statistics.median(values) for who, values in samples.items()}
            for operation, samples in times.items()}


def spread(ratios):
    if len(ratios) < 2:
        return 0.0
    low, middle, high = statistics.quantiles(ratios, n=4, method="inclusive")
    return (high - low) / 2 / middle


def row_of(operation, goal, runs):
    limit = statistics.median(run["limit"] for run in runs)
    ratios = {who: [run[who] / run["limit"] for run in runs] for who in runs[0] if who != "limit"}
    medians = {who: statistics.median(values) for who, values in ratios.items()}
    ours = round(medians.pop("ours"), 2)
    return [
        operation,
        f"{limit:.1f}" if limit < 100 else f"{limit:.0f}",
        f"{ours:.2f}",
        f"{spread(ratios['ours']):.0%}",
        f"{goal:.2f}",
        "ok" if ours <= goal else "MISSED",
        ", ".join(f"{who} {ratio:.2f}" for who, ratio in sorted(medians.items(), key=lambda item: item[1])),
    ]


def main(paths):
    runs = {}
    for path in paths:
        for operation, medians in read_run(path).items():
            runs.setdefault(operation, []).append(medians)
    absent = [operation for operation, _ in GOALS if operation not in runs]
    if absent:
        sys.exit("no results for: " + "; ".join(absent))

    head = ["operation", "limit ns", "ours", "spread", "goal", "", "peers, times the limit"]
    rows = [row_of(operation, goal, runs[operation]) for operation, goal in GOALS]
    widths = [max(len(row[i]) for row in [head] + rows) for i in range(len(head))]
    for row in [head, ["-" * width for width in widths]] + rows:
        cells = [row[0].ljust(widths[0])]
        cells += [cell.rjust(width) for cell, width in zip(row[1:5], widths[1:5])]
        cells += [cell.ljust(width) for cell, width in zip(row[5:], widths[5:])]
        print("  ".join(cells).rstrip())

    missed = sum(row[5] == "MISSED" for row in rows)
    print(f"\n{len(rows) - missed} of {len(rows)} goals reached"
          f"{f'; {missed} MISSED' if missed else ''}.")


if __name__ == "__main__":
    main(sys.argv[1:])
