#!/usr/bin/env python3
"""Draws the results of the benchmark programs: each operation as ours, limit and peers, and cost over size.

Usage: plot.py PICTURE.svg RESULT.json...        (takes gnuplot)
"""
import math
import re
import statistics
import subprocess
import sys

from table import GOALS, read_runs

# Operations that differ in one number, which is the axis: title, axis, pattern.
SERIES = [
    ("Table, get in random order", "keys", r"table get, (\d+) keys"),
    ("Pool after a reset, 256 bytes", "blocks of 32 KiB", r"palloc 256, blocks (\d+), reset"),
    ("Pool made anew, 256 bytes", "blocks of 32 KiB", r"palloc 256, blocks (\d+), fresh"),
]
ROWS_SHARE = 0.72  # of the height of the picture
LETTER = 0.0135  # its width in the rows, in decades
OURS, PEER = "rgb '#c0392b'", "rgb '#5d6d7e'"


def block(name, points):
    return "\n".join([f"${name} << END", *(" ".join(str(part) for part in point) for point in points), "END"])


def labels(peers):
    """Where a name goes, and the name: those that would lie on each other are one label."""
    joined = []  # [decades of its members], name
    for ratio, who in sorted(peers):
        place = math.log10(ratio)
        if joined:
            places, names = joined[-1]
            if place - statistics.mean(places) < LETTER * (len(names) + len(who) + 2) / 2:
                joined[-1] = (places + [place], f"{names}, {who}")
                continue
        joined.append(([place], who))
    return [(10 ** statistics.mean(places), names) for places, names in joined]


def rows(runs):
    """All operations, the first one on top: a diamond for ours, a dot with its name for each peer."""
    operations = [row[0] for row in GOALS if row[0] in runs]
    ours, dots, names, ticks = [], [], [], []
    for height, operation in enumerate(reversed(operations)):
        ticks.append(f'"{operation}" {height}')
        measured = runs[operation]
        ratios = {who: statistics.median(run[who] / run["limit"] for run in measured) for who in measured[0]}
        ours.append((ratios.pop("ours"), height))
        del ratios["limit"]
        dots += [(ratio, height) for ratio in ratios.values()]
        names += [(x, height, f'"{text}"') for x, text in labels((ratio, who) for who, ratio in ratios.items())]
    return [
        block("ours", ours), block("dots", dots), block("names", names),
        f"set origin 0,{1 - ROWS_SHARE}", f"set size 1,{ROWS_SHARE}", "set logscale x",
        f"set ytics ({', '.join(ticks)})", f"set yrange [-1:{len(operations)}]", "set xrange [0.08:200]", "set grid", "unset key",
        'set xtics ("0.2" 0.2, "0.5" 0.5, "limit" 1, "2" 2, "5" 5, "10" 10, "20" 20, "50" 50, "100" 100)',
        'set xlabel "times the physical limit: less is faster. Diamonds: this library; dots: peers"',
        f"set arrow from 1,-1 to 1,{len(operations)} nohead lw 1.5 front",
        f"plot $dots using 1:2 with points pt 7 ps 0.25 lc {PEER},"
        f" $names using 1:2:3 with labels font ',6' offset 0,0.4 tc {PEER},"
        f" $ours using 1:2 with points pt 13 ps 0.8 lc {OURS}",
        "unset arrow", "unset ytics", "unset xtics", "set ytics", "set xrange [*:*]", "set yrange [*:*]", "set logscale xy",
    ]


def series(number, runs, title, unit, pattern):
    """Nanoseconds of one operation over its size, a line for each who was measured."""
    lines = {}
    for operation, measured in runs.items():
        match = re.fullmatch(pattern, operation)
        for who in measured[0] if match else ():
            lines.setdefault(who, []).append((int(match[1]), statistics.median(run[who] for run in measured)))
    styles = {"ours": f"lw 3 lc {OURS}", "limit": "lw 2 dt 2 lc rgb 'black'"}
    sizes = sorted({size for line in lines.values() for size, _ in line})
    names = [f"series{number}_{index}" for index in range(len(lines))]
    plots = [f"${name} using 1:2 with linespoints pt 7 ps 0.3 {styles.get(who, 'lw 1')} title '{who}'"
             for name, who in zip(names, lines)]
    return [
        *(block(name, sorted(line)) for name, line in zip(names, lines.values())),
        f"set origin {number / len(SERIES)},0", f"set size {1 / len(SERIES)},{1 - ROWS_SHARE}",
        f'set title "{title}"', f'set xlabel "{unit}"', 'set ylabel "ns"',
        f"set xtics ({', '.join(str(size) for size in sizes)})", "set key outside right top font ',6' samplen 1",
        "plot " + ", ".join(plots),
    ]


def main(picture, paths):
    runs = read_runs(paths)
    script = [f"set terminal svg size 1200,{300 + 17 * len(runs)} font 'sans-serif,9' noenhanced background rgb 'white'",
              f"set output '{picture}'", "set multiplot", *rows(runs)]
    for number, row in enumerate(SERIES):
        script += series(number, runs, *row)
    subprocess.run(["gnuplot"], input="\n".join(script + ["unset multiplot", ""]), text=True, check=True)


if __name__ == "__main__":
    main(sys.argv[1], sys.argv[2:])
