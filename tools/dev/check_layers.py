#!/usr/bin/env python3
"""Holds the includes below src/ against the table of layers in docs/architecture.md."""
import pathlib
import re
import sys

DOCUMENT = "docs/architecture.md"
# The log call hands lines to the shipper, which logs about itself.
KNOWN_CIRCLE = {"log/", "log/shipper/"}


def read_table(text):
    """What each folder, or single file, may include: {"power": {"enrolment", "log", ...}}."""
    section = text.split("| folder | may include |", 1)[1].split("\n\n", 1)[0]
    rows = re.findall(r"^\| `([^`]+)` \| (.*) \|$", section, re.MULTILINE)
    table = {}
    for index, (name, cell) in enumerate(rows):
        named = set(re.findall(r"`([^`]+)`", cell))
        if cell.startswith("everything below"):
            named = {other for other, _ in rows[index + 1:] if "/" not in other} - named
        elif "besides what" in cell:
            named |= table[name.split("/")[0]]
        elif cell != "nothing" and not named:
            sys.exit(f"{DOCUMENT}: the row of `{name}` names no folder and does not say \"nothing\"")
        table[name] = named
    return table


def includes(source):
    return re.findall(r'^#include "(\w[^"]*/[^"]*)"', source.read_text(), re.MULTILINE)


def wrong_layers(table, sources):
    for source in sources:
        unit = str(source.relative_to("src").with_suffix(""))
        folder = unit.split("/")[0]
        if folder not in table:
            yield f"{source}: give the folder `{folder}` a row in the table of layers in {DOCUMENT}"
            continue
        allowed = table.get(unit, table[folder]) | {folder}
        for header in includes(source):
            if header.split("/")[0] not in allowed and header.removesuffix(".h") not in allowed:
                yield (f"{source} includes {header}, which {DOCUMENT} does not let `{folder}` do: move what both need into a"
                       " folder below, or change the table and say why")


def circles(sources):
    """Pairs of files (header and source count as one) that reach each other."""
    graph = {}
    for source in sources:
        unit = str(source.relative_to("src").with_suffix(""))
        graph.setdefault(unit, set()).update(header.removesuffix(".h") for header in includes(source))
    reach = {}
    for unit in graph:
        seen, unvisited = set(), [unit]
        while unvisited:
            new = graph.get(unvisited.pop(), set()) - seen
            seen |= new
            unvisited += new
        reach[unit] = seen - {unit}
    for unit in sorted(graph):
        for other in sorted(reach[unit]):
            if unit < other and unit in reach[other] and {unit.rsplit("/", 1)[0] + "/", other.rsplit("/", 1)[0] + "/"} - KNOWN_CIRCLE:
                yield f"src/{unit} and src/{other} include each other: move what both need into a file of its own"


def main():
    table = read_table(pathlib.Path(DOCUMENT).read_text())
    sources = sorted(p for p in pathlib.Path("src").rglob("*") if p.suffix in (".h", ".cpp") and p.parent.name != "src")
    wrong = list(wrong_layers(table, sources)) + list(circles(sources))
    print("\n".join(wrong) or f"layers: {len(sources)} files in {len(table)} rows, none out of place")
    return bool(wrong)


if __name__ == "__main__":
    sys.exit(main())
