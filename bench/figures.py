"""The JSON lines of bench/compare and bench/waits, and what they say when they are put together."""
import json
import statistics


class Comparison:
    """Figures by placement, point, pipe and name. Rounds are paired: the same place in the list is the same
    time, so that a slow minute of the machine does not look like a slow library."""

    def __init__(self, lines=()):
        self.series = {}
        self.machine = ""
        for line in lines:
            self.add(line)

    def add(self, line):
        if "machine" in line:
            self.machine = line["machine"]
            return
        key = (line["placement"], line["point"], line["pipe"])
        for name, value in line.items():
            if isinstance(value, (int, float)):
                self.series.setdefault((*key, name), []).append(value)

    def placements(self):
        seen = {key[0] for key in self.series}
        return [placement for placement in ("one-core", "two-cores") if placement in seen]

    def rounds(self):
        return max(len(values) for values in self.series.values())

    def values(self, placement, point, pipe, name):
        return self.series.get((placement, point, pipe, name), [])

    def median(self, *key):
        values = self.values(*key)
        return statistics.median(values) if values else None

    def spread(self, *key):
        """How far the rounds lie apart, as a share of their median."""
        values = self.values(*key)
        return (max(values) - min(values)) / statistics.median(values)

    def ratio(self, placement, point, name, others, best=max, own="lumora"):
        """Lumora as a multiple of the best of the others in the same round, the median of all rounds."""
        ratios = self.ratios(placement, point, name, others, best, own)
        return statistics.median(ratios) if ratios else None

    def ratios(self, placement, point, name, others, best=max, own="lumora"):
        """The same of each round."""
        mine_of_rounds = self.values(placement, point, own, name)
        columns = [self.values(placement, point, other, name) for other in others]
        rivals = [best(values) for values in zip(*[column for column in columns if column])]
        return [mine / theirs for mine, theirs in zip(mine_of_rounds, rivals) if theirs]


class Waits:
    """Values by what was measured, in the order in which it first was."""

    def __init__(self, lines=()):
        self.series, self.units = {}, {}
        for line in lines:
            if "what" in line:
                self.series.setdefault(line["what"], []).append(line["value"])
                self.units[line["what"]] = line["unit"]

    def median(self, what):
        return statistics.median(self.series[what]) if what in self.series else None

    def worst(self, beginning):
        """The largest median of those that begin so, and its name."""
        found = [(self.median(what), what) for what in self.series if what.startswith(beginning)]
        return max(found) if found else (None, beginning)


def read_lines(path):
    with open(path, encoding="utf-8") as lines:
        return [json.loads(line) for line in lines]
