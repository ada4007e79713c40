#!/usr/bin/env python3
"""Compares the tests named in the tables of the given pages with the tests' sources.

Each row must have as many cells as its table's head, none empty, and in the last cell nothing but
names of tests, as `Suite.Name`, that a TEST macro below TESTS defines.
"""

import re
import sys
from pathlib import Path


def existing_tests(folder: Path) -> set[str]:
    macro = re.compile(r"^TEST(?:_F|_P)?\(\s*(\w+)\s*,\s*(\w+)\s*\)", re.MULTILINE)
    return {".".join(match) for file in folder.rglob("*_test.cpp")
            for match in macro.findall(file.read_text())}


def complaints(page: Path, tests: set[str]):
    width = rows = 0
    for number, line in enumerate(page.read_text().splitlines(), 1):
        cells = [cell.strip() for cell in line.strip().split("|")[1:-1]]
        if not cells or cells[0] in ("section", "attack") or set(cells[0]) == {"-"}:
            width = len(cells)
            continue
        rows += 1
        if len(cells) != width or "" in cells:
            yield f"{page.name}:{number}: a cell is missing or empty"
        for name in cells[-1].split(", "):
            if name[:1] + name[-1:] != "``" or name[1:-1] not in tests:
                yield f"{page.name}:{number}: no such test: {name}"
    if rows == 0:
        yield f"{page.name}: no table"


found = existing_tests(Path(sys.argv[1]))
wrong = [text for page in sys.argv[2:] for text in complaints(Path(page), found)]
print("\n".join(wrong) or f"every test named is one of {len(found)}")
sys.exit(1 if wrong else 0)
