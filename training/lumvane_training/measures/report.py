"""Sections of a report: lines of Markdown and the gates that a package meets or misses."""

from __future__ import annotations

from dataclasses import dataclass, field


@dataclass
class Gate:
    """One aim."""

    name: str
    figure: str
    aim: str
    met: bool

    def line(self) -> str:
        """A table row."""
        return f"| {self.name} | {self.figure} | {self.aim} | {'met' if self.met else '**missed**'} |"


@dataclass
class Section:
    """A heading, text and tables, and gates."""

    title: str
    lines: list[str] = field(default_factory=list)
    gates: list[Gate] = field(default_factory=list)
    figures: dict = field(default_factory=dict)
    """Plain numbers for the JSON file."""

    def gate(self, name: str, value: float, limit: float, form: str = "{:.3f}", unit: str = "") -> None:
        """Adds the aim |value| <= limit."""
        self.gates.append(Gate(name, form.format(value) + unit, f"at most {limit:g}{unit}", abs(value) <= limit))

    def at_least(self, name: str, value: float, limit: float, form: str = "{:+.1f}", unit: str = "") -> None:
        """Adds the aim value >= limit."""
        self.gates.append(Gate(name, form.format(value) + unit, f"at least {limit:g}{unit}", value >= limit))

    def text(self) -> str:
        """The section in Markdown."""
        lines = [f"## {self.title}", "", *self.lines]
        if self.gates:
            lines += ["" if self.lines else None, "| aim | figure | wanted | |", "| --- | --- | --- | --- |"]
            lines += [gate.line() for gate in self.gates]
        return "\n".join(line for line in lines if line is not None) + "\n"


def table(head: list[str], rows: list[list[str]]) -> list[str]:
    """A Markdown table."""
    return ["| " + " | ".join(head) + " |", "| " + " | ".join("---" for _ in head) + " |",
            *("| " + " | ".join(row) + " |" for row in rows)]
