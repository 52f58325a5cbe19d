#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Draws the plots of docs/performance.md from a run's JSON.

  build-bench/bin/pol_bench --benchmark_out=run.json --benchmark_out_format=json
  bench/plot.py run.json docs/plots
"""
import json
import math
import os
import sys

WIDTH, HEIGHT = 720, 400
LEFT, RIGHT, TOP, BOTTOM = 70, 170, 40, 60
COLOURS = ["#1f5fa8", "#c04a1a", "#2b8a3e", "#7a3fa0"]

# File, title, axis, and the lines: label, pattern of a benchmark's name, sizes. A walk is dashed.
PLOTS = [
    ("list-size.svg", "One prefix list", "elements in the list", [
        ("index", "W1/{}", [10, 1000, 100000]),
        ("walk over elements", "W1/{}/walk", [10, 1000, 100000]),
    ]),
    ("sequences.svg", "Many sequences", "sequences in the policy", [
        ("tags", "W2/{}", [1, 10, 100, 1000, 10000]),
        ("own prefix lists", "W2p/{}", [10, 100, 1000]),
        ("mixed clauses", "W2m/{}", [10, 100, 1000]),
        ("tags, walk", "W2/{}/walk", [1, 10, 100, 1000, 10000]),
        ("own prefix lists, walk", "W2p/{}/walk", [10, 100, 1000]),
        ("mixed clauses, walk", "W2m/{}/walk", [10, 100, 1000]),
    ]),
]


def medians(path):
    with open(path, encoding="utf-8") as file:
        runs = json.load(file)["benchmarks"]
    return {run["run_name"]: run["cpu_time"] for run in runs if run.get("aggregate_name") == "median"}


def plot(path, title, axis, lines, floor):
    points = [p for _, line in lines for p in line]
    if not points:
        sys.exit(f"plot.py: the run has none of the figures of {os.path.basename(path)}")
    x_low, x_high = (math.log10(f(p[0] for p in points)) for f in (min, max))
    y_low = 0
    y_high = math.ceil(math.log10(max(p[1] for p in points)))

    def x_of(value):
        return LEFT + (math.log10(value) - x_low) / (x_high - x_low) * (WIDTH - LEFT - RIGHT)

    def y_of(floors):
        return HEIGHT - BOTTOM - (math.log10(max(floors, 1)) - y_low) / (y_high - y_low) * (
            HEIGHT - TOP - BOTTOM)

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {WIDTH} {HEIGHT}" '
           'font-family="sans-serif" font-size="12">',
           f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
           f'<text x="{LEFT}" y="22" font-size="15">{title}: cost of a route</text>']
    for power in range(y_low, y_high + 1):
        y = y_of(10 ** power)
        out.append(f'<path d="M{LEFT} {y:.1f}H{WIDTH - RIGHT}" stroke="#ddd"/>')
        out.append(f'<text x="{LEFT - 8}" y="{y + 4:.1f}" text-anchor="end">{10 ** power:,}</text>')
    for power in range(math.floor(x_low), math.ceil(x_high) + 1):
        x = x_of(10 ** power)
        out.append(f'<path d="M{x:.1f} {TOP}V{HEIGHT - BOTTOM}" stroke="#eee"/>')
        out.append(f'<text x="{x:.1f}" y="{HEIGHT - BOTTOM + 18}" text-anchor="middle">{10 ** power:,}</text>')
    middle = (LEFT + WIDTH - RIGHT) / 2
    out.append(f'<text x="{middle}" y="{HEIGHT - 14}" text-anchor="middle">{axis}</text>')
    out.append(f'<text transform="translate(16 {HEIGHT / 2}) rotate(-90)" text-anchor="middle">'
               f'times an empty policy ({floor:.1f} ns in this run)</text>')
    colours = {}
    labels = []
    for label, line in lines:
        if not line:
            continue
        walk = "walk" in label
        colour = colours.setdefault(label.split(",")[0], COLOURS[len(colours) % len(COLOURS)])
        dash = ' stroke-dasharray="5 4"' if walk else ""
        way = " ".join(f"{x_of(x):.1f},{y_of(y):.1f}" for x, y in line)
        out.append(f'<polyline points="{way}" fill="none" stroke="{colour}" stroke-width="2"{dash}/>')
        labels.append([y_of(line[-1][1]), label, colour])
    for place, label in enumerate(sorted(labels)):
        if place > 0:
            label[0] = max(label[0], previous + 15)
        previous = label[0]
        out.append(f'<text x="{WIDTH - RIGHT + 8}" y="{label[0] + 4:.1f}" fill="{label[2]}">{label[1]}</text>')
    out.append("</svg>")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(out) + "\n")


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: plot.py RUN.json FOLDER")
    figures = medians(sys.argv[1])
    if "floor" not in figures:
        sys.exit(f"plot.py: {sys.argv[1]} has no median of `floor`")
    floor = figures["floor"]
    os.makedirs(sys.argv[2], exist_ok=True)
    for name, title, axis, lines in PLOTS:
        drawn = [(label, [(size, figures[pattern.format(size)] / floor) for size in sizes
                          if pattern.format(size) in figures]) for label, pattern, sizes in lines]
        plot(os.path.join(sys.argv[2], name), title, axis, drawn, floor)


main()
