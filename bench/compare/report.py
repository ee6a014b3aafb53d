#!/usr/bin/python3
"""Turn the figures of bench/compare.sh into tables, and with --chart into a chart if there is more than one tool.

Usage: report.py [--chart FILE.svg] FIGURES…     if several files measure the same, the last file is used
"""

import argparse
import json
import math
from statistics import median

MIB = 1024 * 1024


class Figures:
    """Medians by work, delay and tool, in the order in which they were measured."""

    def __init__(self, paths):
        rows = {}
        for path in paths:
            latest = {}
            with open(path) as lines:
                for row in map(json.loads, lines):
                    latest.setdefault((row["work"], row["delay"], row["tool"]), []).append(row)
            rows |= latest
        self._runs = {key: [row for row in found if "wall" in row] for key, found in rows.items()}
        self.failed = {key: row["failed"] for key, found in rows.items() for row in found if "failed" in row}
        self.works = dict(sorted({row["work"]: row["title"] for found in rows.values() for row in found}.items()))
        self.delays = sorted({delay for _, delay, _ in rows})
        self.tools = list(dict.fromkeys(tool for _, _, tool in rows))
        self.runs = sorted({len(found) for found in self._runs.values() if found})

    def value(self, work, delay, tool, figure):
        """The median; None if the tool cannot do the work or failed in one of the runs."""
        found = self._runs.get((work, delay, tool), [])
        if not found or (work, delay, tool) in self.failed:
            return None
        return median(figure(row) for row in found)


def three_digits(value):
    if value == 0:
        return "0"
    return f"{value:.{max(0, 2 - math.floor(math.log10(value)))}f}" if value >= 0.01 else f"{value:.3f}"


def table(figures, title, figure, show, delays):
    yield f"\n**{title}**" + (f", at {' / '.join(f'{delay} ms' for delay in delays)} delay" if len(delays) > 1 else f", at {delays[0]} ms delay")
    yield ""
    yield "| | | " + " | ".join(figures.tools) + " |"
    yield "|---|---|" + "---|" * len(figures.tools)
    for work, label in figures.works.items():
        cells = []
        for tool in figures.tools:
            values = [figures.value(work, delay, tool, figure) for delay in delays]
            texts = ["failed" if (work, delay, tool) in figures.failed else "–" if value is None else show(value)
                     for delay, value in zip(delays, values)]
            cells.append("–" if set(texts) == {"–"} else " / ".join(texts))
        yield f"| {work} | {label} | " + " | ".join(cells) + " |"


def tables(figures):
    yield f"Medians of {' or '.join(map(str, figures.runs))} runs."
    yield from table(figures, "Wall time, seconds", lambda row: row["wall"], three_digits, figures.delays)
    yield from table(figures, "CPU time of the tool, seconds", lambda row: row["cpu"], three_digits, figures.delays)
    yield from table(figures, "Peak memory, MiB", lambda row: row["peak"] / MIB, "{:.0f}".format, figures.delays)
    last = figures.delays[-1:]
    yield from table(figures, "Requests", lambda row: row["requests"], "{:,.0f}".format, last)
    yield from table(figures, "MiB on the wire, both ways", lambda row: (row["sent"] + row["received"]) / MIB, three_digits, last)
    for (work, delay, tool), reason in figures.failed.items():
        yield f"\n{tool} failed in {work} at {delay} ms: {' '.join(reason.split())}"


def draw(figures, path):
    import matplotlib

    matplotlib.use("svg")
    # The same figures give the same file.
    matplotlib.rcParams.update({"svg.hashsalt": "compare", "svg.fonttype": "none", "font.size": 9})
    from matplotlib import pyplot
    from matplotlib.ticker import FuncFormatter

    ours, *others = figures.tools
    works = [work for work in figures.works
             if any(figures.value(work, delay, ours, lambda row: row["wall"]) for delay in figures.delays)]
    panes, axes = pyplot.subplots(1, len(figures.delays), figsize=(4.6 * len(figures.delays), 3.6), sharey=True, squeeze=False)
    for axis, delay in zip(axes[0], figures.delays):
        for tool, marker in zip(others, "os^DvPX"):
            points = []
            for position, work in enumerate(works):
                mine, theirs = (figures.value(work, delay, name, lambda row: row["wall"]) for name in (ours, tool))
                if mine and theirs:
                    points.append((position, theirs / mine))
            if points:
                floor = tool == "curl"
                axis.scatter(*zip(*points), marker="_" if floor else marker, s=80 if floor else 24,
                             color="black" if floor else None, label=f"{tool}, the floor" if floor else tool, zorder=3)
        axis.axhline(1, color="grey", linewidth=1)
        axis.set(yscale="log", title=f"{delay} ms added to each request", xticks=range(len(works)), xticklabels=works)
        axis.yaxis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
        axis.grid(axis="y", which="major", linewidth=0.4)
    axes[0][0].set_ylabel(f"wall time / that of {ours}\n(above 1: {ours} is faster)")
    handles, labels = axes[0][0].get_legend_handles_labels()
    panes.legend(handles, labels, loc="lower center", ncol=len(labels), frameon=False)
    panes.tight_layout(rect=(0, 0.07, 1, 1))
    panes.savefig(path, metadata={"Date": None})


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--chart", metavar="FILE.svg")
    parser.add_argument("figures", nargs="+", metavar="FIGURES")
    options = parser.parse_args()
    figures = Figures(options.figures)
    print("\n".join(tables(figures)))
    if options.chart and len(figures.tools) > 1:
        draw(figures, options.chart)


if __name__ == "__main__":
    main()
