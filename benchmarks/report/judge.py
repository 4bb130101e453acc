"""Compares ovra with its peers, and judges the goals."""

TOLERATED = 1.15  # What a ratio may grow by before it counts as a regression.


class Row:
    """One line of the table: ovra's figure, the peers', and whether the goal is met."""

    def __init__(self, spec, found):
        self.spec = spec
        self.value = self.figure_of(found, spec.ours)
        peers = {peer: self.figure_of(found, peer) for peer in spec.peers_in(found)}
        # Best first.
        self.peers = sorted(((peer, value) for peer, value in peers.items() if value),
                            key=lambda item: item[1])
        self.instructions = self.counted(found, "instructions")
        self.arm_instructions = self.counted(found, "arm_instructions")

    def figure_of(self, found, contestant):
        value = found.median(self.spec.name(contestant), self.spec.figure)
        if value is None or self.spec.over is None:
            return value
        base = found.median(self.spec.over.format(of=contestant), self.spec.figure)
        return value / base if base else None

    def counted(self, found, figure):
        """What goes beside a time: ovra's count, and its ratio to the judged peer's."""
        if self.spec.figure not in ("cpu_ns", "instructions") or self.spec.over:
            return None, None
        own = found.median(self.spec.name(self.spec.ours), figure)
        peer, _ = self.judged()
        of_peer = found.median(self.spec.name(peer), figure) if peer else None
        return own, own / of_peer if own and of_peer else None

    def ratios(self):
        return [(peer, self.value / value) for peer, value in self.peers]

    def judged(self):
        """The best of the peers that the row is held against, and the ratio to it."""
        return next(((peer, ratio) for peer, ratio in self.ratios()
                     if self.spec.against is None or peer in self.spec.against), (None, None))

    def is_met(self):
        """None where there is no goal, or nobody to compare with."""
        ratio = self.judged()[1]
        verdicts = []
        if self.spec.limit is not None:
            verdicts.append(self.value <= self.spec.limit)
        if self.spec.goal is not None and ratio is not None:
            verdicts.append(ratio <= self.spec.goal)
        return all(verdicts) if verdicts else None

    def key(self):
        return self.spec.group, self.spec.what, tuple(self.spec.against or ())


def rows_of(specs, found):
    return [row for row in (Row(spec, found) for spec in specs.rows) if row.value is not None]


class Judgement:
    """The rows of this run, judged together with what was recorded on other kinds of machine."""

    def __init__(self, specs, found, others):
        self.rows = rows_of(specs, found)
        self.elsewhere = [(other.about["machine"], {row.key(): row for row in rows_of(specs, other)})
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


def regressions(specs, found, recorded):
    """The rows whose ratio to the judged peer, or whose instruction count, has grown too much, as
    (row, what grew, before, now). Rows that the system's scheduler decides are no evidence."""
    before = {row.key(): row for row in rows_of(specs, recorded)}
    grown = []
    for row in rows_of(specs, found):
        old = before.get(row.key())
        if old is None or row.spec.is_scheduled:
            continue
        peer = row.judged()[0]
        pairs = [(f"ratio to {peer}", dict(old.ratios()).get(peer), row.judged()[1])]
        if row.spec.figure.endswith("instructions") or not row.peers:
            pairs.append((row.spec.figure, old.value, row.value))
        grown += [(row, what, was, now) for what, was, now in pairs
                  if was and now and now > was * TOLERATED]
    return grown
