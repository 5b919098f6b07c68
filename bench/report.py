#!/usr/bin/env python3
"""Writes what bench/compare measured into README.md and docs/: the blocks between the marker
comments, and the plots.

    bench/report.py ROWS.json CURVE.json
"""

import itertools
import json
import os
import re
import sys

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

from jobs import CHECKED, CTL, FLOOR, OURS  # noqa: E402

PROJECT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
OURS_COLOUR, PEER_COLOUR, FLOOR_COLOUR, GOAL_COLOUR = "#1f6feb", "#8b949e", "#2da44e", "#cf222e"
CLIENT_COLOUR = "#bf8700"


def table(head, rows):
    lines = [head, ["---"] + ["--:"] * (len(head) - 1), *rows]
    return "\n".join("| " + " | ".join(line) + " |" for line in lines)


def replace_block(path, name, text):
    """Puts `text` between the comments that begin and end the block `name`."""
    with open(path, encoding="utf-8") as file:
        content = file.read()
    pattern = rf"(<!-- figures {name}: .*? -->\n).*?(<!-- end of {name} -->)"
    content, count = re.subn(pattern, lambda match: f"{match[1]}\n{text}\n\n{match[2]}", content,
                             flags=re.DOTALL)
    if count != 1:
        raise SystemExit(f"{path} has {count} blocks {name}, not 1")
    with open(path, "w", encoding="utf-8") as file:
        file.write(content)


def mib(kib):
    return f"{kib / 1024:.1f}"


def both(ratio):
    return f"{ratio['wall']:.2f} ({ratio['cpu']:.2f})"


def reference(row):
    return row["ratios"][row["reference"]]


def with_clients(rows):
    return [(name, row) for name, row in rows.items() if row["clients"]]


def summary(rows, micro):
    """What users run beside other programs: the client alone."""
    lines = []
    for name, row in with_clients(rows):
        job, tree = name.split("-")
        clients = row["clients"]
        lines.append([job, tree, row["reference"], both(clients[CHECKED]), both(clients[CTL]),
                      mib(row["figures"][CHECKED]["peak"])])
    head = ["job", "tree", "compared with", f"`{CHECKED}`", "`--no-verify`", "MiB"]
    slowest = max(value for name, value in micro.items() if name.startswith("Command/"))
    return (f"{table(head, lines)}\n\nIn the library a command that acts at once takes "
            f"{slowest:.2f} µs; a worker has begun a task {micro['TaskStart']:.0f} µs after it was "
            "sent.")


def client_rows(rows):
    """Client and library side by side."""
    lines = []
    for name, row in with_clients(rows):
        cells = [name, row["reference"], f"{reference(row)['wall']:.2f}"]
        for client in (CTL, CHECKED):
            cells += [f"{row['clients'][client]['wall']:.2f}",
                      f"{1 / row['ratios'][client]['wall']:.2f}",
                      f"{row['client_goals'][client]:.2f}"]
        lines.append([*cells, *(mib(row["figures"][ours]["peak"]) for ours in (OURS, CHECKED))])
    return table(["row", "compared with", "library", CTL, "to the library", "goal", CHECKED,
                  "to the library", "goal", "library, MiB", f"{CHECKED}, MiB"], lines)


def all_rows(rows):
    """The library beside other programs: a table for each set of these."""
    def others(item):
        return [name for name in item[1]["ratios"] if name not in (CTL, CHECKED)]

    tables = []
    for programs, group in itertools.groupby(rows.items(), others):
        lines = []
        for name, row in group:
            ours = row["figures"][OURS]
            cells = [both(row["ratios"][peer]) for peer in programs]
            goal = "" if row["goal"] is None else f"{row['goal']:.2f}"
            lines.append([name, f"{ours['wall']:.0f} ({ours['cpu']:.0f})", goal, *cells])
        tables.append(table(["row", "library, ms", "goal", *programs], lines))
    return "\n\n".join(tables)


def memory(rows):
    lines = []
    for name, row in rows.items():
        ours = row["figures"][OURS]
        lines.append([name, mib(ours["peak"]), f"+{mib(ours['peak'] - ours['idle'])}",
                      f"{row['reference']}: {mib(row['figures'][row['reference']]['peak'])}"])
    return table(["row", "library, MiB", "above idle", "compared with"], lines)


def per_entry(row, name, key="cpu"):
    return row["figures"][name][key] * 1000 / row["entries"]


def curve_table(curve):
    lines = []
    for job, points in curve.items():
        for row in points.values():
            peer = row["reference"]
            lines.append([job, f"{row['entries']:,}", f"{per_entry(row, OURS):.2f}",
                          f"{peer}: {per_entry(row, peer):.2f}", f"{per_entry(row, FLOOR):.2f}",
                          f"{row['ratios'][peer]['cpu']:.2f}", f"{row['ratios'][peer]['wall']:.2f}",
                          mib(row["figures"][OURS]["peak"]),
                          mib(row["figures"][CHECKED]["peak"])])
    return table(["job", "entries", "library, µs", "peer, µs", "floor, µs", "processor", "elapsed",
                  "library, MiB", f"{CHECKED}, MiB"], lines)


def micro_table(micro):
    return table(["benchmark", "ns"],
                 [[f"`{name}`", f"{value * 1000:.0f}"] for name, value in micro.items()])


def machine_text(measured):
    machine = measured["machine"]
    return (f"Measured on {measured['date']}: {machine['processor']}, {machine['memory']}, "
            f"{machine['kernel']}; {'; '.join(machine['peers'])}.")


def save(figure, name):
    figure.savefig(f"{PROJECT}/docs/{name}.svg", bbox_inches="tight", metadata={"Date": None})
    pyplot.close(figure)


def draw_rows(rows):
    figure, axes = pyplot.subplots(figsize=(8, 5))
    names = list(rows)
    places = range(len(names))
    ratios = [reference(row)["wall"] for row in rows.values()]
    floors = [reference(row)["wall"] / row["ratios"][FLOOR]["wall"] for row in rows.values()]
    goals = [(place, row["goal"]) for place, row in zip(places, rows.values()) if row["goal"]]
    clients = [(place, row["clients"][CHECKED]["wall"])
               for place, row in zip(places, rows.values()) if row["clients"]]
    axes.barh(places, ratios, height=0.6, color=OURS_COLOUR, label="library")
    axes.plot([ratio for _, ratio in clients], [place for place, _ in clients], "o", markersize=5,
              color=CLIENT_COLOUR, label=CHECKED)
    axes.plot(floors, places, "D", color=FLOOR_COLOUR, markersize=5, label="the least possible")
    axes.plot([goal for _, goal in goals], [place for place, _ in goals], "|", markersize=16,
              markeredgewidth=2, color=GOAL_COLOUR, label="goal")
    axes.axvline(1, color=PEER_COLOUR, linewidth=1.5, label="the program compared with")
    axes.set_yticks(places, [f"{name}: {row['reference']}" for name, row in rows.items()])
    axes.invert_yaxis()
    axes.set_xlabel("elapsed time, ratio to the program compared with (less is faster)")
    axes.legend(loc="upper center", bbox_to_anchor=(0.4, 1.1), ncols=5, frameon=False,
                columnspacing=1.2, handletextpad=0.4)
    save(figure, "performance-rows")


def draw_curve(curve):
    figure, grid = pyplot.subplots(2, 3, figsize=(11, 6), layout="constrained")
    panels = list(grid.flat)
    for axes, (job, points) in zip(panels, curve.items()):
        entries = [row["entries"] for row in points.values()]
        peer = next(iter(points.values()))["reference"]
        for name, colour in ((OURS, OURS_COLOUR), (peer, PEER_COLOUR), (FLOOR, FLOOR_COLOUR)):
            axes.plot(entries, [per_entry(row, name) for row in points.values()], "o-",
                      color=colour, label="library" if name == OURS else name)
        axes.set(title=job, xscale="log", xlabel="entries", ylabel="processor µs per entry")
        axes.set_ylim(bottom=0)
        axes.legend(frameon=False)
    for axes, program, title in zip(panels[4:], (OURS, CHECKED), ("the library's process", CHECKED)):
        for job, points in curve.items():
            axes.plot([row["entries"] for row in points.values()],
                      [row["figures"][program]["peak"] / 1024 for row in points.values()], "o-",
                      label=job)
        axes.set(title=f"peak memory of {title}", xscale="log", xlabel="entries", ylabel="MiB")
        axes.set_ylim(bottom=0)
        axes.legend(frameon=False)
    save(figure, "performance-curve")


def main():
    if len(sys.argv) != 3:
        raise SystemExit(__doc__)
    with open(sys.argv[1], encoding="utf-8") as file:
        measured = json.load(file)
    with open(sys.argv[2], encoding="utf-8") as file:
        curve = json.load(file)["curve"]
    rows, micro = measured["rows"], measured["micro"]
    # Texts stay texts, and the same figures give the same file.
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "peltex", "font.size": 10})
    draw_rows(rows)
    draw_curve(curve)
    replace_block(f"{PROJECT}/README.md", "summary", summary(rows, micro))
    page = f"{PROJECT}/docs/PERFORMANCE.md"
    replace_block(page, "machine", machine_text(measured))
    replace_block(page, "rows", f"![](performance-rows.svg)\n\n{all_rows(rows)}")
    replace_block(page, "clients", client_rows(rows))
    replace_block(page, "memory", memory(rows))
    replace_block(page, "curve", f"![](performance-curve.svg)\n\n{curve_table(curve)}")
    replace_block(page, "micro", micro_table(micro))


if __name__ == "__main__":
    main()
