"""How tables look: columns, and which of two figures is better."""
from dataclasses import dataclass


@dataclass(frozen=True)
class Column:
    key: str
    heading: str
    better: str  # high, low, or empty: nothing to compare


@dataclass(frozen=True)
class Table:
    title: str
    columns: tuple


def high(key, heading):
    return Column(key, heading, "high")


def low(key, heading):
    return Column(key, heading, "low")


def plain(key, heading):
    return Column(key, heading, "")


def number(x):
    """Three figures, whatever the size."""
    return f"{x:,.0f}" if abs(x) >= 100 else f"{x:.1f}" if abs(x) >= 10 else f"{x:.2f}" if abs(x) >= 1 else f"{x:.3f}"
