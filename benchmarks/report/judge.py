"""Compares ovra with its peers, and judges the goals."""

TOLERATED = 1.15  # What a ratio may grow by before it counts as a regression.


class Row:
    """One line of the table: ovra's figure, the peers', and whether the goal is met."""

    def __init__(self, plan, found):
        self.plan = plan
        self.value = self.figure_of(found, plan.ours)
        peers = {peer: self.figure_of(found, peer) for peer in plan.peers_in(found)}
        # Best first.
        self.peers = sorted(((peer, value) for peer, value in peers.items() if value),
                            key=lambda item: item[1])
        self.instructions = self.counted(found, "instructions")
        self.arm_instructions = self.counted(found, "arm_instructions")

    def figure_of(self, found, contestant):
        value = found.median(self.plan.name(contestant), self.plan.figure)
        if value is None or self.plan.over is None:
            return value
        base = found.median(self.plan.over.format(of=contestant), self.plan.figure)
        return value / base if base else None

    def counted(self, found, figure):
        """What goes beside a time: ovra's count, and its ratio to the judged peer's."""
        if self.plan.figure not in ("cpu_ns", "instructions") or self.plan.over:
            return None, None
        own = found.median(self.plan.name(self.plan.ours), figure)
        peer, _ = self.judged()
        of_peer = found.median(self.plan.name(peer), figure) if peer else None
        return own, own / of_peer if own and of_peer else None

    def ratios(self):
        return [(peer, self.value / value) for peer, value in self.peers]

    def judged(self):
        """The best of the peers that the row is held against, and the ratio to it."""
        return next(((peer, ratio) for peer, ratio in self.ratios()
                     if self.plan.against is None or peer in self.plan.against), (None, None))

    def is_met(self):
        """None where there is no goal, or nobody to compare with."""
        ratio = self.judged()[1]
        verdicts = []
        if self.plan.limit is not None:
            verdicts.append(self.value <= self.plan.limit)
        if self.plan.goal is not None and ratio is not None:
            verdicts.append(ratio <= self.plan.goal)
        return all(verdicts) if verdicts else None

    def key(self):
        return self.plan.group, self.plan.what, tuple(self.plan.against or ())


def rows_of(plans, found):
    return [row for row in (Row(plan, found) for plan in plans.rows) if row.value is not None]


class Judgement:
    """The rows of this run, judged together with what was recorded on other kinds of machine."""

    def __init__(self, plans, found, others):
        self.rows = rows_of(plans, found)
        self.elsewhere = [(other.about["machine"], {row.key(): row for row in rows_of(plans, other)})
                          for other in others]

    def verdict(self, row):
        """"met" only where it is met on every machine."""
        met = row.is_met()
        if met is None:
            return ""
        here, there = ("met", "missed") if met else ("missed", "met")
        differing = [machine for machine, rows in self.elsewhere
                     if row.key() in rows and rows[row.key()].is_met() is (not met)]
        return f"{here} here, {there} on {'; '.join(differing)}" if differing else here

    def goals(self):
        return [(row, self.verdict(row)) for row in self.rows if self.verdict(row)]

    def summary(self):
        verdicts = [verdict for _, verdict in self.goals()]
        text = f"Of {len(verdicts)} goals, {verdicts.count('met')} are met"
        changing = sum(" here" in verdict for verdict in verdicts)
        return text + (f"; {changing} more depend on the machine." if changing else ".")


def regressions(plans, found, recorded):
    """The rows whose ratio to the judged peer, or whose instruction count, has grown too much, as
    (row, what grew, before, now). Rows that the system's scheduler decides are no evidence."""
    before = {row.key(): row for row in rows_of(plans, recorded)}
    grown = []
    for row in rows_of(plans, found):
        old = before.get(row.key())
        if old is None or row.plan.is_scheduled:
            continue
        peer = row.judged()[0]
        pairs = [(f"ratio to {peer}", dict(old.ratios()).get(peer), row.judged()[1])]
        if row.plan.figure.endswith("instructions") or not row.peers:
            pairs.append((row.plan.figure, old.value, row.value))
        grown += [(row, what, was, now) for what, was, now in pairs
                  if was and now and now > was * TOLERATED]
    return grown
