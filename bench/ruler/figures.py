"""Figures, goals, and whether these are met."""

import statistics
from dataclasses import dataclass


@dataclass
class Spread:
    """A median with its quartiles."""

    median: float
    first: float
    third: float

    @staticmethod
    def of(values):
        values = sorted(values)
        if len(values) < 2:
            return Spread(values[0], values[0], values[0])
        first, median, third = statistics.quantiles(values, n=4, method="inclusive")
        return Spread(median, first, third)


@dataclass
class Goal:
    """What the server is to reach.

    kind: "cpu" or "throughput", a ratio to the contender `against` in the same rounds; "value", the
    figure of the column `column` itself.
    """

    kind: str
    limit: float
    against: str = ""
    column: str = ""
    at_least: bool = False
    contender: str = "httpd"

    def text(self):
        sign = ">=" if self.at_least else "<="
        what = {"cpu": "CPU", "throughput": "throughput", "value": self.column}[self.kind]
        relation = f" x {self.against}" if self.against else ""
        return f"{what} {sign} {self.limit:,.5g}{relation}"

    def judge(self, spread):
        """A record of how the measured spread stands to the goal; None: not measured."""
        record = {"goal": self.text(), "kind": self.kind, "contender": self.contender,
                  "against": self.against, "limit": self.limit, "measured": None, "verdict": "not measured"}
        if spread is None:
            return record
        record["measured"] = spread.median
        if self._holds(spread.median):
            record["verdict"] = "met"
        elif self._holds(spread.third if self.at_least else spread.first):
            record["verdict"] = "missed, within the spread"
        else:
            record["verdict"] = "missed"
        return record

    def _holds(self, value):
        return value >= self.limit if self.at_least else value <= self.limit


def table(heads, rows):
    """Lays out rows of text; the first column to the left, all others to the right."""
    widths = [max(len(str(row[i])) for row in [heads, *rows]) for i in range(len(heads))]
    lines = []
    for row in [heads, *rows]:
        cells = [str(cell).ljust(width) if i == 0 else str(cell).rjust(width)
                 for i, (cell, width) in enumerate(zip(row, widths))]
        lines.append("  " + "  ".join(cells).rstrip())
    return lines


def short(value):
    """A number with three or four digits that count."""
    if value is None:
        return "-"
    magnitude = abs(value)
    if magnitude >= 1000:
        return f"{value:,.0f}"
    if magnitude >= 100:
        return f"{value:.0f}"
    if magnitude >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}"
