"""Trials, counted for a table, and the problems found."""

from collections import Counter


class Report:
    """The outcomes of many trials, counted by row and column, and the problems in words."""

    def __init__(self, title, row_names, columns):
        self.title = title
        self.problems = []
        self._row_names = row_names
        self._columns = columns
        self._counts = {}

    def count(self, row, *columns):
        """Adds one to `columns` of the row, a tuple with a word for each row name."""
        self._counts.setdefault(row, Counter()).update(columns)

    def problem(self, where, what):
        """Adds a problem."""
        self.problems.append(f"{where}: {what}")

    def add(self, other):
        """Adds the outcomes of another report of the same kind."""
        for row, counts in other._counts.items():
            self._counts.setdefault(row, Counter()).update(counts)
        self.problems += other.problems

    def total(self, column):
        """The sum of a column."""
        return sum(counts[column] for counts in self._counts.values())

    def table(self):
        """The counts as a Markdown table."""
        lines = [[*self._row_names, *self._columns]]
        for row, counts in self._counts.items():
            lines.append([*row, *(str(counts[column] or "-") for column in self._columns)])
        blank = [""] * (len(self._row_names) - 1)
        lines.append(["total", *blank, *(str(self.total(column)) for column in self._columns)])
        widths = [max(map(len, words)) for words in zip(*lines)]
        texts = ["| " + " | ".join(word.ljust(width) for word, width in zip(line, widths)) + " |" for line in lines]
        rule = "|" + "|".join("-" * (width + 2) for width in widths) + "|"
        return "\n".join([f"## {self.title}", "", texts[0], rule, *texts[1:], ""])
