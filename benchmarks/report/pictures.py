"""Draws the report's pictures."""

import os

import matplotlib

matplotlib.use("svg")
matplotlib.rcParams.update({"svg.hashsalt": "ovra", "svg.fonttype": "path",
                            "font.family": "DejaVu Sans", "font.size": 10})
from matplotlib import pyplot  # noqa: E402  The output is chosen first.
from matplotlib.ticker import FuncFormatter, NullFormatter  # noqa: E402

from tables import figure_text, ratio_text  # noqa: E402

COLOURS = {
    "ovra": "#c1121f", "ovra HighestPriority": "#c1121f", "ovra NoStarve": "#f48c06",
    "QThreadPool": "#2b9348", "GThreadPool": "#0077b6",
    "Poco PriorityNotificationQueue": "#7b2cbf", "std::priority_queue": "#495057",
    "Boost.Asio": "#8d99ae", "oneTBB": "#bc8a5f",
    "Qt": "#2b9348", "spdlog": "#0077b6", "glog": "#8d99ae", "std::filesystem": "#495057",
}
TASK = ("ovra HighestPriority", "ovra NoStarve", "QThreadPool", "std::priority_queue")
LINE = ("ovra", "spdlog", "glog")
PATH = ("ovra", "std::filesystem", "Qt")

# The three answers: file, title, and what is measured of whom.
ANSWERS = (
    ("task.svg", "A task, in a burst of 10 000 at three priorities", TASK, (
        ("warm pool and heap", "burst/{}/n:10000/workers:1", 1),
        ("first burst of a process", "cold/{}/n:10000/workers:1/pinned:1", 1))),
    ("line.svg", "A log line", LINE, (
        ("below the level", "filtered/{}", 1),
        ("to a flushed file", "sink/{}", 1),
        ("to the system log and a flushed file", "file+syslog/{}", 1))),
    ("path.svg", "A path, and an entry of a directory", PATH, (
        ("all components of a path", "components/{}", 1),
        ("a path resolved", "resolved/{}", 1),
        ("an entry listed, of 5 000", "list/{}", 5000))),
)


def save(figure, path):
    """Writes an SVG whose text does not depend on the day."""
    figure.savefig(path, metadata={"Date": None, "Creator": None})
    pyplot.close(figure)


def bare(axis, *sides):
    for side in sides:
        axis.spines[side].set_visible(False)


def draw_answer(found, directory, file, title, contestants, measured):
    figure, axes = pyplot.subplots(1, len(measured), figsize=(11.5, 2.4))
    for axis, (label, pattern, operations) in zip(axes, measured):
        bars = [(name, found.median(pattern.format(name), "cpu_ns"),
                 found.median(pattern.format(name), "instructions")) for name in contestants]
        bars = [bar for bar in bars if bar[1]]
        for i, (name, value, instructions) in enumerate(bars):
            axis.barh(i, value / operations, color=COLOURS[name], height=0.7)
            text = figure_text(value / operations, "cpu_ns")
            if instructions:
                text += f"\n{figure_text(instructions / operations, 'instructions')} instr."
            axis.annotate(text, (value / operations, i), xytext=(4, 0), fontsize=8,
                          textcoords="offset points", va="center")
        axis.set_yticks(range(len(bars)), [name for name, *_ in bars], fontsize=8)
        axis.invert_yaxis()
        axis.set_xticks([])
        axis.margins(x=0.45)
        axis.set_title(label, fontsize=10)
        bare(axis, "top", "right", "bottom")
        axis.tick_params(axis="y", length=0)
    figure.suptitle(f"{title}: processor time (shorter is better)", fontsize=12)
    figure.tight_layout()
    save(figure, os.path.join(directory, file))


def draw_growth(found, plans, path):
    figure, axes = pyplot.subplots(1, 2, figsize=(11.5, 5.2), sharey=True)
    pools = plans.sets["pools"][::-1] + plans.sets["strategies"][::-1]
    for axis, (title, pattern) in zip(axes, (
            ("warm, 1 worker", "burst/{}/n:{}/workers:1"),
            ("cold, 1 worker on the caller's core", "cold/{}/n:{}/workers:1/pinned:1"))):
        for pool in pools:
            points = [(n, found.median(pattern.format(pool, n), "cpu_ns"))
                      for n in (100, 1000, 10000, 100000, 1000000)]
            points = [(n, value / 1e3) for n, value in points if value]
            if not points:
                continue
            ours = pool in plans.sets["strategies"]
            style = "-" if ours or pool in plans.sets["ordered"] else (0, (4, 2))
            axis.plot(*zip(*points), label=pool, color=COLOURS[pool], linestyle=style,
                      linewidth=2.6 if ours else 1.4, marker="o", markersize=6 if ours else 4,
                      zorder=3 if ours else 2)
        axis.set_xscale("log")
        axis.set_yscale("log")
        axis.set_title(title, fontsize=11)
        axis.set_xlabel("tasks in the burst")
        axis.xaxis.set_major_formatter(FuncFormatter(lambda n, _: f"{n:,.0f}".replace(",", " ")))
        axis.set_yticks([0.5, 1, 2, 5, 10, 20])
        axis.yaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
        axis.yaxis.set_minor_formatter(NullFormatter())
        axis.grid(True, which="major", color="#d8d8d8", linewidth=0.8)
        axis.set_axisbelow(True)
        bare(axis, "top", "right")
    axes[0].set_ylabel("µs of processor time per task")
    handles, labels = axes[0].get_legend_handles_labels()
    figure.suptitle("A burst of tasks at three priorities (lower is better; flat is good)",
                    fontsize=13)
    figure.legend(handles[::-1], labels[::-1], loc="lower center", ncol=4, frameon=False)
    figure.subplots_adjust(left=0.075, right=0.985, top=0.86, bottom=0.25, wspace=0.08)
    save(figure, path)


def draw_goals(judgement, path):
    """Every ratio that has a goal."""
    judged = [(f"{row.plan.group.split(',')[0]}: {row.plan.what}", *row.judged(), row.plan.goal)
              for row, _ in judgement.goals()
              if row.plan.goal is not None and row.judged()[1] is not None]
    if not judged:
        return
    figure, axis = pyplot.subplots(figsize=(11.5, 0.27 * len(judged) + 1.3))
    for i, (_, name, ratio, goal) in enumerate(judged):
        colour = "#2b9348" if ratio <= goal else "#c1121f"
        axis.plot([min(ratio, goal), max(ratio, goal)], [i, i], color=colour, linewidth=1.2,
                  alpha=0.5, zorder=2)
        axis.plot([goal], [i], marker="|", markersize=11, color="#222222", zorder=3)
        axis.plot([ratio], [i], marker="o", markersize=6, color=colour, zorder=4)
        axis.annotate(f"{ratio_text(ratio)}  {name}", (1.01, i),
                      xycoords=("axes fraction", "data"), va="center", fontsize=8)
    axis.set_yticks(range(len(judged)), [label for label, *_ in judged], fontsize=8)
    axis.set_ylim(len(judged) - 0.4, -0.6)
    axis.set_xscale("log")
    axis.set_xticks([0.1, 0.2, 0.3, 0.5, 0.7, 1, 1.5, 2, 3, 5, 10])
    values = [value for _, _, ratio, goal in judged for value in (ratio, goal)]
    axis.set_xlim(min(values) * 0.92, max(values) * 1.08)
    axis.axvline(1, color="#999999", linewidth=0.8, linestyle=(0, (4, 3)))
    axis.xaxis.set_major_formatter(FuncFormatter(lambda v, _: f"{v:g}"))
    axis.xaxis.set_minor_formatter(NullFormatter())
    axis.set_xlabel("ovra over the peer named (left is better); | marks the goal")
    axis.grid(True, axis="x", which="major", color="#d8d8d8", linewidth=0.8)
    axis.set_axisbelow(True)
    bare(axis, "top", "right", "left")
    axis.tick_params(axis="y", length=0)
    figure.tight_layout()
    save(figure, path)


def draw_all(found, plans, judgement, directory):
    for answer in ANSWERS:
        draw_answer(found, directory, *answer)
    draw_growth(found, plans, os.path.join(directory, "growth.svg"))
    draw_goals(judgement, os.path.join(directory, "ratios.svg"))
