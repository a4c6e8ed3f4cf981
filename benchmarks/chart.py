#!/usr/bin/env python3
"""Draws the tables that ./bench and ./bench --peers print as one SVG chart.

    ./bench > bench.txt; ./bench --peers > peers.txt
    benchmarks/chart.py [--only REGEX] [--title TEXT] bench.txt [peers.txt ...] RESULT.svg

Each ratio is a bar: 1 is what the measure is compared with, a tick the limit. Bars of other libraries
are grey, and what a run left out stands below with its reason. Measures in other units are not
drawn. Ends with 1, and draws nothing, when a table is not that of a whole run.
"""
import argparse
import html
import re
import sys

# A measure, its value, and its limit where it has one, as Verdict::text() writes them.
ROW = re.compile(r"^(?P<measure>.+?) +(?P<value>\d+(\.\d+)?)x(?: +(?P<limit>\d+(\.\d+)?)x)?(?:  over)?\s*$")
WHOLE = ("every measure within its limit", "measures over their limit")

WIDTH, LABEL, RIGHT, TOP, STEP, BAR = 960, 500, 70, 64, 20, 12
GOOD, OVER, PEER, AXIS, TEXT, LIMIT = "#3b7dd8", "#d8603b", "#b9c0cc", "#9aa3b2", "#2b303b", "#2b303b"
IS_PEER, LEFT_OUT = ", peer ", "left out: "


def figures(text, only):
    """The ratios of a run as (measure, value, limit or None), and what it left out."""
    lines = text.splitlines()
    if not any(line.rstrip().endswith(end) for line in lines[-2:] for end in WHOLE):
        sys.exit("chart: this is not the table of a whole run")
    found = []
    for line in lines:
        row = ROW.match(line)
        if row and re.search(only, row["measure"]):
            limit = float(row["limit"]) if row["limit"] else None
            found.append((row["measure"].strip(), float(row["value"]), limit))
    if not found:
        sys.exit("chart: no ratio in this table")
    return found, [line for line in lines if line.startswith(LEFT_OUT)]


def label(x, y, text, colour=TEXT, anchor="start"):
    return (f'<text x="{x:.1f}" y="{y:.1f}" fill="{colour}" text-anchor="{anchor}">'
            f"{html.escape(text)}</text>")


def line(x, y1, y2, colour, width, dash=""):
    return (f'<line x1="{x:.1f}" y1="{y1:.1f}" x2="{x:.1f}" y2="{y2:.1f}" stroke="{colour}" '
            f'stroke-width="{width}"{dash}/>')


def colour(measure, value, limit):
    if IS_PEER in measure:
        return PEER
    return OVER if limit is not None and value > limit else GOOD


def chart(rows, left_out, title):
    most = max(max(value, limit or 0, 1) for _, value, limit in rows)
    scale = (WIDTH - LABEL - RIGHT) / most
    foot = TOP + len(rows) * STEP
    height = foot + len(left_out) * STEP + 16
    one = LABEL + scale
    svg = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{height}" '
           f'viewBox="0 0 {WIDTH} {height}" role="img" font-family="sans-serif" font-size="12">',
           f"<title>{html.escape(title)}</title>",
           '<rect width="100%" height="100%" fill="#ffffff"/>',
           f'<g font-size="15" font-weight="bold">{label(16, 26, title)}</g>',
           label(16, 46, "shorter is better; | is the limit of ./bench", AXIS),
           label(one, TOP - 4, "1", AXIS, "middle"),
           line(one, TOP, foot + 4, AXIS, 1, ' stroke-dasharray="3 3"')]
    for number, (measure, value, limit) in enumerate(rows):
        y = TOP + number * STEP + (STEP - BAR) / 2
        svg.append(label(LABEL - 8, y + BAR - 2, measure, anchor="end"))
        svg.append(f'<rect class="bar" x="{LABEL}" y="{y:.1f}" width="{value * scale:.1f}" '
                   f'height="{BAR}" fill="{colour(measure, value, limit)}"/>')
        if limit is not None:
            svg.append(line(LABEL + limit * scale, y - 2, y + BAR + 2, LIMIT, 2))
        end = max(value, limit or 0)
        svg.append(label(LABEL + end * scale + 6, y + BAR - 2, f"{value:.2f}"))
    for number, reason in enumerate(left_out):
        svg.append(label(16, foot + (number + 1) * STEP, reason, AXIS))
    return "\n".join(svg + ["</svg>", ""])


def read(table):
    if table == "-":
        return sys.stdin.read()
    with open(table, encoding="utf-8") as file:
        return file.read()


def main():
    parser = argparse.ArgumentParser(description="Draws the tables that ./bench prints.")
    parser.add_argument("--only", default="", metavar="REGEX", help="measures that match")
    parser.add_argument("--title", default="What it takes, compared with the floor")
    parser.add_argument("tables", nargs="+", help="what ./bench printed; - for standard input")
    parser.add_argument("result")
    options = parser.parse_args()
    rows, left_out = [], []
    for table in options.tables:
        found, missing = figures(read(table), options.only)
        rows += found
        left_out += missing
    drawn = chart(rows, left_out, options.title)
    with open(options.result, "w", encoding="utf-8") as file:
        file.write(drawn)


if __name__ == "__main__":
    main()
