#!/usr/bin/env python3
"""Holds scripts/lib/coverage_gaps.py to what it promises, with small reports."""
import json
import os
import shutil
import subprocess
import tempfile
import unittest

SCRIPT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", "..",
                                       "scripts/lib/coverage_gaps.py"))
LINES = 200


class Gaps(unittest.TestCase):
    """A source whose lines are all called `run();`, but for those that a test renames."""

    def setUp(self):
        self.root = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.root)

    def write(self, name, content):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)

    def judge(self, missed, rows):
        """missed: line numbers and texts of what is not run; rows: texts that have a reason."""
        lines = [f"    {missed.get(number, 'run();')}\n" for number in range(1, LINES + 1)]
        self.write("src/a.cpp", "".join(lines))
        counts = [{"line_number": number, "count": int(number not in missed), "branches": []}
                  for number in range(1, LINES + 1)]
        self.write("coverage.json", json.dumps({"files": [{"file": "src/a.cpp", "lines": counts}]}))
        table = "".join(f"| `a.cpp` | `{text}` | why |\n" for text in rows)
        self.write("testing.md", "| file | line | reason |\n|---|---|---|\n" + table)
        result = subprocess.run([SCRIPT, "coverage.json", "testing.md"], cwd=self.root,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")
        said = [line for line in result.stdout.splitlines()
                if line.startswith(("src/a.cpp:", "testing.md", "below"))]
        return result.returncode, said

    def test_accepts_a_row_for_each_line(self):
        self.assertEqual(self.judge({}, []), (0, []))
        self.assertEqual(self.judge({3: "return true;", 7: "abort();", 9: "return true;"},
                                    ["return true;", "return true;", "abort();"]), (0, []))

    def test_finds_a_line_without_a_row(self):
        self.assertEqual(self.judge({3: "abort();"}, []), (1, [
            "src/a.cpp:3: no test runs this, and testing.md does not say why: abort();"]))

    def test_finds_a_row_that_excuses_two_lines(self):
        self.assertEqual(self.judge({3: "return true;", 9: "return true;"}, ["return true;"]), (1, [
            f"src/a.cpp:{number}: no test runs this, and testing.md does not say why "
            "(1 of 2 explained): return true;" for number in (3, 9)]))

    def test_finds_a_row_without_a_line(self):
        gone = "testing.md explains a line that is run or gone: a.cpp: return true;"
        self.assertEqual(self.judge({}, ["return true;"]), (1, [gone]))
        self.assertEqual(self.judge({3: "return true;"}, ["return true;"] * 3), (1, [gone, gone]))

    def test_holds_the_goal(self):
        missed = {number: "no();" for number in range(1, 8)}
        self.assertEqual(self.judge(missed, ["no();"] * 7),
                         (1, ["below the goal of 97.0% of the lines"]))
        del missed[7]
        self.assertEqual(self.judge(missed, ["no();"] * 6), (0, []))


if __name__ == "__main__":
    unittest.main(verbosity=2)
