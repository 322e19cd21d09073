"""What was tried, counted for a table, and what went wrong."""

from collections import Counter


class Report:
    """The outcomes of many trials: counted by row and column, and the problems in words."""

    def __init__(self, title, row_names, columns):
        self.title = title
        self.problems = []
        self.notes = []
        self._row_names = row_names
        self._columns = columns
        self._counts = {}

    def count(self, row, *columns):
        """Adds one to columns of the row, which is a tuple of as many words as there are row names."""
        self._counts.setdefault(row, Counter()).update(columns)

    def problem(self, where, what):
        """Notes something that must not be."""
        self.problems.append(f"{where}: {what}")

    def note(self, where, what):
        """Notes something that is no problem, but has to be listed."""
        self.notes.append(f"{where}: {what}")

    def add(self, other):
        """Takes the outcomes of another report of the same kind."""
        for row, counts in other._counts.items():
            self._counts.setdefault(row, Counter()).update(counts)
        self.problems += other.problems
        self.notes += other.notes

    def total(self, column):
        """How often that column was counted."""
        return sum(counts[column] for counts in self._counts.values())

    def table(self):
        """The counts as a Markdown table, and the notes."""
        head = [*self._row_names, *self._columns]
        lines = [[*row, *(str(counts[column] or "-") for column in self._columns)] for row, counts in self._counts.items()]
        lines.append(["total", *[""] * (len(self._row_names) - 1), *(str(self.total(column)) for column in self._columns)])
        widths = [max(len(line[i]) for line in [head, *lines]) for i in range(len(head))]
        texts = ["| " + " | ".join(word.ljust(width) for word, width in zip(line, widths)) + " |" for line in [head, *lines]]
        return "\n".join([f"## {self.title}", "", texts[0], "|" + "|".join("-" * (width + 2) for width in widths) + "|",
                          *texts[1:], "", *(f"- {note}" for note in self.notes), *[""] * bool(self.notes)])
