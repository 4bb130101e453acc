"""Writes the report's text."""

UNITS = {"bytes": "bytes", "queued_bytes": "bytes", "kept_bytes": "bytes", "kib": "KiB",
         "peak_kib": "KiB"}


def is_time(figure):
    return figure == "ns" or figure.endswith("_ns")


def figure_text(value, figure, is_quotient=False):
    if is_quotient:
        return f"{value:.3g}"
    if is_time(figure):
        for limit, name, scale in ((1e3, "ns", 1), (1e6, "µs", 1e3), (1e9, "ms", 1e6)):
            if value < limit:
                return f"{value / scale:.3g} {name}"
        return f"{value / 1e9:.3g} s"
    unit = UNITS.get(figure, "")
    if unit == "bytes" and value >= 1e4:
        return f"{value / 1024:.0f} KiB"
    return f"{count_text(value) if value >= 1e3 else f'{value:.3g}'} {unit}".strip()


def count_text(value):
    return f"{value:,.0f}".replace(",", " ")


def ratio_text(ratio):
    if ratio < 0.01:
        return f"{ratio:.1g}"
    return f"{ratio:.2f}" if ratio < 10 else f"{ratio:.0f}"


def value_text(row):
    return figure_text(row.value, row.plan.figure, row.plan.over is not None)


def instructions_text(counted):
    own, ratio = counted
    if own is None:
        return ""
    return count_text(own) + (f" ({ratio_text(ratio)})" if ratio else "")


def ratios_text(row):
    judged = row.judged()[0] if row.plan.goal is not None else None
    texts = [f"**{name} {ratio_text(ratio)}**" if name == judged else
             f"{name} {ratio_text(ratio)}" for name, ratio in row.ratios()]
    return " · ".join(texts)


def goal_text(row):
    goals = []
    if row.plan.limit is not None:
        goals.append(f"≤ {figure_text(row.plan.limit, row.plan.figure, row.plan.over is not None)}")
    if row.plan.goal is not None:
        goals.append(f"ratio ≤ {row.plan.goal:g}")
    return ", ".join(goals)


def grouped(rows, columns, line):
    """A table with a heading for each group, in the order in which groups first come."""
    lines = [f"| {' | '.join(columns)} |", f"|---|---:|{'---|' * (len(columns) - 2)}"]
    for group in dict.fromkeys(row.plan.group for row in rows):
        lines.append(f"| **{group}** |{' |' * (len(columns) - 1)}")
        lines += [line(row) for row in rows if row.plan.group == group]
    return "\n".join(lines)


def all_rows(judgement):
    return grouped(
        judgement.rows, ("measured", "ovra", "ratio: ovra / peer, the best peer first",
                         "instructions", "on 32-bit ARM"),
        lambda row: f"| {row.plan.what} | {value_text(row)} | {ratios_text(row)} | "
                    f"{instructions_text(row.instructions)} | "
                    f"{instructions_text(row.arm_instructions)} |")


def goals(judgement):
    verdicts = {id(row): verdict for row, verdict in judgement.goals()}

    def line(row):
        peer, ratio = row.judged()
        held = f"{peer} {ratio_text(ratio)}" if row.plan.goal is not None and ratio else ""
        verdict = verdicts[id(row)]
        return (f"| {row.plan.what} | {value_text(row)} | {held} | {goal_text(row)} | "
                f"{verdict if verdict == 'met' else f'**{verdict}**'} |")

    return grouped([row for row, _ in judgement.goals()],
                   ("goal", "ovra", "ratio", "goal", ""), line)


def other_rows(plans, found):
    """Ovra's figures that no row names."""
    named = {(plan.name(plan.ours), plan.figure) for plan in plans.rows}
    named_at_all = {name for name, _ in named}
    ours = set(plans.sets["strategies"] + plans.sets["ovra"])
    lines = []
    for name in found.names():
        shape, contestant, *arguments = name.split("/")
        if contestant not in ours or name in named_at_all:
            continue
        for figure in found.figures(name):
            own = found.median(name, figure)
            peers = {peer: found.median("/".join([shape, peer, *arguments]), figure)
                     for peer in {other.split("/")[1] for other in found.names()} - ours}
            ratios = sorted(((peer, own / value) for peer, value in peers.items() if value),
                            key=lambda item: -item[1])
            lines.append(f"| {name}, {figure} | {figure_text(own, figure)} | " + " · ".join(
                f"{peer} {ratio_text(ratio)}" for peer, ratio in ratios) + " |")
    if not lines:
        return ""
    return "\n".join(["", "Also measured:", "", "| measured | ovra | ratio: ovra / peer |",
                      "|---|---:|---|", *lines, ""])


def answer(judgement, group, what, peer):
    """Ovra's figure of a row, and how it compares with the peer's, as a sentence's part."""
    for row in judgement.rows:
        if row.plan.group.startswith(group) and row.plan.what == what:
            ratio = dict(row.ratios()).get(peer)
            counted = row.instructions[0]
            return (value_text(row) + (f", {ratio_text(ratio)} of {peer}'s" if ratio else "") +
                    (f" ({count_text(counted)} instructions)" if counted else ""))
    return "not measured"
