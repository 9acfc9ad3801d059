#!/usr/bin/env python3
"""Prints the results of the benchmark programs as one table of ratios.

Usage: table.py [--markdown] [--missed FILE] RESULT.json...  (Google Benchmark's JSON, one for each run of a program)

A run gives each operation the median over its repetitions, divided by the median of the operation's limit
in the same run; what is shown is the median over the runs. The spread is half the distance between the
quartiles of our ratio over the runs: a difference to the goal that is smaller means nothing.

Where a part of the time is the kernel's, the ratio hangs on how fast this machine's system calls are, and the
row says "kernel". FILE gets the operations that miss their goal by more than a tenth, one a line.
"""
import argparse
import json
import statistics
import sys

MISSED_BY = 1.1
KERNEL = "kernel"

# Operation, how many times its limit it may cost, and what else its ratio hangs on.
GOALS = [
    ("refused record", 1.5, ""),
    ("refused record, 2 threads", 1.6, ""),
    ("refused trace", 1.5, ""),
    ("refused, others switched on", 4.0, ""),
    ("accepted, one file", 1.06, KERNEL),
    ("accepted, both files", 1.04, KERNEL),
    ("conf_load", 4.0, KERNEL),
    *((f"palloc {size}, blocks {blocks}, reset", 2.4, "") for size in (16, 64, 256) for blocks in (1, 8, 64)),
    *((f"palloc {size}, blocks {blocks}, fresh", 4.5, KERNEL) for size in (16, 64, 256) for blocks in (1, 8, 64)),
    ("alloc and free", 2.2, ""),
    ("table get, 500 keys", 1.6, ""),
    ("table get, 5000 keys", 2.0, ""),
    ("table get, 50000 keys", 2.4, ""),
    ("table get absent, 500 keys", 2.0, ""),
    ("table get absent, 50000 keys", 1.8, ""),
    ("table put, known of 500", 1.6, ""),
    ("table put, known of 50000", 2.6, ""),
    ("table put, new key", 2.6, ""),
    ("table remove", 1.9, ""),
    ("counters of an interface", 1.2, KERNEL),
    ("operational state", 1.2, KERNEL),
    ("shell command", 1.1, KERNEL),
    ("get 16", 1.3, ""),
    ("get 200", 1.3, ""),
    ("get 1500", 1.3, ""),
    ("get absent", 2.0, ""),
    ("put tmpfs", 1.05, KERNEL),
    ("put disk", 1.1, KERNEL),
    ("open and close tmpfs", 1.5, KERNEL),
    ("open and close disk", 1.05, KERNEL),
    ("request, one client", 1.17, KERNEL),
    ("request, eight in flight", 1.08, KERNEL),
    ("request, 1000 idle", 1.17, KERNEL),
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


def row_of(goal_row, runs):
    operation, goal, hangs_on = goal_row
    limit = statistics.median(run["limit"] for run in runs)
    ratios = {who: [run[who] / run["limit"] for run in runs] for who in runs[0] if who != "limit"}
    medians = {who: statistics.median(values) for who, values in ratios.items()}
    ours = round(medians.pop("ours"), 2)
    verdict = "ok" if ours <= goal else "MISSED" if ours > goal * MISSED_BY else "nearly"
    return [
        operation,
        f"{limit:.1f}" if limit < 100 else f"{limit:.0f}",
        f"{ours:.2f}",
        f"{spread(ratios['ours']):.0%}",
        f"{goal:.2f}",
        verdict,
        hangs_on,
        ", ".join(f"{who} {ratio:.2f}" for who, ratio in sorted(medians.items(), key=lambda item: item[1])),
    ]


HEAD = ["operation", "limit ns", "ours", "spread", "goal", "", "", "peers, times the limit"]


def print_plain(rows):
    widths = [max(len(row[i]) for row in [HEAD] + rows) for i in range(len(HEAD))]
    for row in [HEAD, ["-" * width for width in widths]] + rows:
        cells = [row[0].ljust(widths[0])]
        cells += [cell.rjust(width) for cell, width in zip(row[1:5], widths[1:5])]
        cells += [cell.ljust(width) for cell, width in zip(row[5:], widths[5:])]
        print("  ".join(cells).rstrip())


def print_markdown(rows):
    for row in [HEAD, ["---"] * len(HEAD)] + rows:
        print("| " + " | ".join(row) + " |")


def read_runs(paths):
    runs = {}
    for path in paths:
        for operation, medians in read_run(path).items():
            runs.setdefault(operation, []).append(medians)
    return runs


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--markdown", action="store_true")
    parser.add_argument("--missed")
    parser.add_argument("--some", action="store_true", help="not all operations were measured")
    parser.add_argument("results", nargs="+")
    options = parser.parse_args()

    runs = read_runs(options.results)
    absent = [row[0] for row in GOALS if row[0] not in runs]
    if absent and not options.some:
        sys.exit("no results for: " + "; ".join(absent))
    rows = [row_of(row, runs[row[0]]) for row in GOALS if row[0] in runs]
    (print_markdown if options.markdown else print_plain)(rows)
    missed = [row[0] for row in rows if row[5] == "MISSED"]
    if options.missed:
        with open(options.missed, "w", encoding="utf-8") as file:
            file.writelines(operation + "\n" for operation in missed)
    reached = sum(row[5] == "ok" for row in rows)
    print(f"\n{reached} of {len(rows)} goals reached; {len(missed)} missed by more than a tenth.")


if __name__ == "__main__":
    main()
