#!/usr/bin/env python3
"""Holds scripts/lint to what it promises, in small repositories with one thing wrong each.

Usage: lint_test.py CHECK    (house links words python shell format cppcheck tidy usage)
"""
import os
import shutil
import subprocess
import sys
import tempfile
import unittest

ROOT = os.path.realpath(os.path.join(os.path.dirname(__file__), "..", ".."))

GUARDED = "#ifndef HTTP2CLIENT_TOOLS_A_H\n#define HTTP2CLIENT_TOOLS_A_H\n{}#endif  // {}\n"
HEADER = GUARDED.format("\ninline int one() { return 1; }\n\n", "HTTP2CLIENT_TOOLS_A_H")
SOURCE = '#include "a.h"\n\nint main() { return one() - 1; }\n'
BUILD = """cmake_minimum_required(VERSION 3.25)
project(Small LANGUAGES CXX)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
add_executable(a tools/a.cpp)
"""
PRESETS = """{"version": 6, "configurePresets": [
 {"name": "release", "generator": "Ninja", "cacheVariables": {"CMAKE_BUILD_TYPE": "Release"}}]}
"""
README = """# A tree

See [below](#a-second-one), [the source](tools/a.cpp), `tools/a.h` and <https://example.org/a?b=c>.

## A second one

```
[not](a-link.md)
```
"""


class Tree(unittest.TestCase):
    """A repository in which nothing is wrong, with the scripts of this one."""

    def setUp(self):
        self.root = tempfile.mkdtemp()
        self.addCleanup(shutil.rmtree, self.root)
        # Nothing of the repository that a hook runs this for, nor of the user's settings.
        self.environment = {name: value for name, value in os.environ.items()
                            if not name.startswith("GIT_") and name != "LINT_WORDS"}
        self.environment["GIT_CONFIG_GLOBAL"] = "/dev/null"
        for name in ("scripts/lint", "scripts/lib/check_house.py", "scripts/lib/check_links.py",
                     "scripts/lib/tidy.py", ".clang-format", ".clang-tidy"):
            target = os.path.join(self.root, name)
            os.makedirs(os.path.dirname(target), exist_ok=True)
            shutil.copy(os.path.join(ROOT, name), target)
        self.write("scripts/install-deps", "#!/bin/bash\n", executable=True)
        self.write("CMakeLists.txt", BUILD)
        self.write("CMakePresets.json", PRESETS)
        self.write("README.md", README)
        self.write("tools/a.h", HEADER)
        self.write("tools/a.cpp", SOURCE)
        self.write("tools/b.py", "#!/usr/bin/env python3\nprint(1)\n", executable=True)
        self.git("init", "--quiet")
        self.track()

    def write(self, name, content, executable=False):
        path = os.path.join(self.root, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        os.chmod(path, 0o755 if executable else 0o644)

    def git(self, *arguments):
        subprocess.run(["git", "-c", "user.name=a", "-c", "user.email=a@example.org", *arguments],
                       cwd=self.root, env=self.environment, check=True)

    def track(self):
        self.git("add", "--all", "--", ".", ":!build")

    def lint(self, *arguments):
        result = subprocess.run([os.path.join(self.root, "scripts/lint"), *arguments],
                                env=self.environment, stdin=subprocess.DEVNULL,
                                stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8")
        return result.returncode, result.stdout

    def accepts(self, *arguments):
        status, output = self.lint(*arguments)
        self.assertEqual(status, 0, output)
        self.assertNotIn("FAILED", output)
        return output

    def rejects(self, check, *texts):
        """The check fails, says so last, and each of the texts stands in what it prints."""
        status, output = self.lint(check)
        self.assertEqual(status, 1, output)
        for text in texts:
            self.assertIn(text, output)
        self.assertTrue(output.endswith(f"FAILED: {check}\n"), output)

    def finds(self, check, name, content, *texts, executable=False):
        """The check fails for the sake of this file, and passes without it."""
        self.write(name, content, executable)
        self.track()
        self.rejects(check, *texts)
        os.remove(os.path.join(self.root, name))
        self.accepts(check)


class House(Tree):
    def test_accepts_the_tree(self):
        self.assertIn("0 places are wrong", self.accepts("house"))

    def test_finds_modes(self):
        self.finds("house", "a", "#!/bin/sh\n", "a: starts with #! and is not executable")
        self.finds("house", "a", "text\n", "a: is executable", executable=True)

    def test_finds_blanks_and_newlines(self):
        self.finds("house", "a", "1\n2 \n", "a:2: blank or carriage return")
        self.finds("house", "a", "1\t\n2\n", "a:1: blank or carriage return")
        self.finds("house", "a", "1\r\n", "a:1: blank or carriage return")
        self.finds("house", "a", "1", "a: no newline at the end")
        self.finds("house", "a", "1\n\n", "a: empty line at the end")
        self.finds("house", "a", b"1\n\xff\n", "a:2: not UTF-8")

    def test_leaves_bytes_alone(self):
        self.write(".gitattributes", "/bytes binary\n")
        self.write("bytes", b"\xff \n\n")
        self.write("zero", b"\0 \n\n")
        self.track()
        self.accepts("house")

    def test_finds_guards(self):
        self.finds("house", "tools/b.h", HEADER, "does not open with the guard HTTP2CLIENT_TOOLS_B_H",
                   "does not end with #endif  // HTTP2CLIENT_TOOLS_B_H")
        self.write("tools/a.h", GUARDED.format("", "A_H"))
        self.rejects("house", "tools/a.h: does not end with #endif  // HTTP2CLIENT_TOOLS_A_H")
        self.write("tools/a.h", "// first\n" + HEADER)
        self.accepts("house")

    def test_finds_sizes(self):
        self.finds("house", "a.cpp", "\n" * 65535 + "ab\n", "a.cpp: has 65538 bytes")
        self.finds("house", "a.txt", "a\n" * 262144 + "b\n", "a.txt: has 524290 bytes")

    def test_looks_at_tracked_files_alone(self):
        self.write("untracked", "1 \n")
        self.accepts("house")


class Links(Tree):
    def test_accepts_the_tree(self):
        self.assertIn("1 documents, 3 links (1 lead elsewhere: only their form was judged): 0 "
                      "places are wrong", self.accepts("links"))

    def test_finds_links_that_lead_nowhere(self):
        for text, message in (
                ("[a](b.md)", "docs/a.md:3: b.md: no such tracked file"),
                ("[a](tools/a.h)", "docs/a.md:3: tools/a.h: no such tracked file"),
                ("![a](../tools/a.png 'title')", "docs/a.md:3: ../tools/a.png: no such tracked"),
                ("[a](../../b.md)", "docs/a.md:3: ../../b.md: no such tracked file"),
                ("[a](/README.md)", "docs/a.md:3: /README.md: absolute path"),
                ("[a](#b)", "docs/a.md:3: #b: no such heading in docs/a.md"),
                ("[a](../README.md#b)", "docs/a.md:3: ../README.md#b: no such heading in README.md"),
                ("[a][b]", "docs/a.md:3: [a][b]: label without a definition"),
                ("[a][b]\n\n[b]: c.md", "docs/a.md:5: c.md: no such tracked file"),
                ("<a href='c.html'>c</a>", "docs/a.md:3: c.html: no such tracked file"),
                ("[a](http:///b)", "docs/a.md:3: http:///b: no host"),
                ("<https://exa_mple.org>", "docs/a.md:3: https://exa_mple.org: no host"),
                ("[a](ftp://example.org)", "docs/a.md:3: ftp://example.org: unexpected scheme ftp"),
                ("[a](mailto:b)", "docs/a.md:3: mailto:b: no mail address"),
                ("`tools/b.h`", "docs/a.md:3: tools/b.h: no such tracked file")):
            with self.subTest(text):
                self.finds("links", "docs/a.md", f"# A\n\n{text}\n", message, "1 places are wrong")

    def test_accepts_links_that_lead_somewhere(self):
        self.write("docs/a.md", "\n\n".join((
            "# `A`: one_two, *three* & [four](../README.md)", "# Twice", "# Twice", "Under\n-----",
            "# Named {#by-name}", "[a](#a-one_two-three--four)", "[a](#twice-1)", "[a](#under)",
            "[a](#by-name)", "[a](../tools)", "[a](../tools/)", "[a](../README.md#a-tree)",
            "[![b](../tools/a.h)](..)", "[a][B]", "[b]: a.md", "[a](mailto:a@example.org)",
            "[a](https://en.example.org/a_(b) 'c')", "`[a](b.md)`", "<!-- [a](b.md) -->",
            "`tools/a.h` `tools/` `build/a` `nowhere/a` `a.h` `tools/NAME` `tools/NAME/a`")) + "\n")
        self.track()
        self.accepts("links")

    def test_takes_no_untracked_file_for_a_target(self):
        self.write("docs/a.md", "[a](b.md)\n")
        self.track()
        self.write("docs/b.md", "# B\n")
        self.rejects("links", "docs/a.md:1: b.md: no such tracked file")


class Words(Tree):
    def test_says_when_it_did_not_run(self):
        self.assertIn("NOT RUN: words", self.accepts("words"))

    def test_finds_a_pattern(self):
        words = tempfile.NamedTemporaryFile("w", suffix=".txt")
        self.addCleanup(words.close)
        words.write("one thing\nother +things?\n")
        words.flush()
        self.environment["LINT_WORDS"] = words.name
        self.assertNotIn("NOT RUN", self.accepts("words"))
        self.finds("words", "a", "1\nAn Other  thing\n", "a:2:An Other  thing")

    def test_fails_without_its_list(self):
        self.environment["LINT_WORDS"] = os.path.join(self.root, "none")
        self.rejects("words")


class Python(Tree):
    def test_finds_what_is_wrong(self):
        self.accepts("python")
        self.finds("python", "a", "#!/usr/bin/env python3\nimport os\n", "'os' imported but unused",
                   executable=True)
        self.finds("python", "a.py", "def a():\n    b = 1\n", "'b' is assigned to but never used")


class Shell(Tree):
    def test_finds_what_is_wrong(self):
        self.accepts("shell")
        self.finds("shell", "a", "#!/bin/sh\nrm $1\n", "SC2086", executable=True)
        self.finds("shell", "a", "# shellcheck shell=bash\nrm $1\n", "SC2086")


class Format(Tree):
    def test_finds_what_is_wrong(self):
        self.accepts("format")
        self.finds("format", "tools/b.cpp", "int  a;\n", "tools/b.cpp:1:")
        self.finds("format", "tools/b.h", "int  a;\n", "tools/b.h:1:")


class Cppcheck(Tree):
    def test_finds_what_is_wrong(self):
        self.accepts("cppcheck")
        self.finds("cppcheck", "tests/b.cpp", "int main() {\n    int a[2] = {};\n    return a[2];\n}\n",
                   "tests/b.cpp:3:", "[arrayIndexOutOfBounds]")


class Tidy(Tree):
    WRONG = '#include "tools/a.h"\n\nint* a() { return 0; }\n'

    def test_judges_again_what_has_changed(self):
        self.assertIn("1 judged and clean, 0 clean and not changed", self.accepts("tidy"))
        self.assertIn("0 judged and clean, 1 clean and not changed", self.accepts("tidy"))
        self.write("tools/a.h", HEADER.replace("return 1", "return 2"))
        self.assertIn("1 judged and clean, 0 clean and not changed", self.accepts("tidy"))
        self.write("tools/a.h", HEADER.replace("int one() { return 1; }", "int* one() { return 0; }"))
        self.rejects("tidy", "tools/a.h:4:", "[modernize-use-nullptr", "1 wrong")
        self.rejects("tidy", "tools/a.h:4:", "1 wrong")  # nothing wrong is remembered

    def test_judges_again_when_its_settings_change(self):
        self.accepts("tidy")
        settings = os.path.join(self.root, ".clang-tidy")
        with open(settings, encoding="utf-8") as file:
            text = file.read()
        self.write(".clang-tidy", text.replace("-*,", "-*, modernize-use-trailing-return-type,", 1))
        self.rejects("tidy", "tools/a.h:4:", "[modernize-use-trailing-return-type", "1 wrong")

    def test_judges_what_nothing_builds(self):
        self.write("tests/b.cpp", self.WRONG)
        self.track()
        self.rejects("tidy", "2 sources", "tests/b.cpp: no target compiles it", "tests/b.cpp:3:",
                     "1 judged and clean, 0 clean and not changed since, 1 wrong")

    def test_fails_without_a_build(self):
        self.write("CMakeLists.txt", "nonsense(\n")
        self.rejects("tidy", "CMake Error")


class Usage(Tree):
    def test_refuses_unknown_checks(self):
        status, output = self.lint("house", "typo")
        self.assertEqual(status, 2)
        self.assertIn("no such check: typo", output)
        self.assertNotIn("==", output)

    def test_names_all_that_failed(self):
        self.write("README.md", "[a](b.md) \n")
        status, output = self.lint("house", "links", "format")
        self.assertEqual(status, 1)
        self.assertTrue(output.endswith("FAILED: house links\n"), output)

    def test_fails_where_there_is_nothing_to_check(self):
        for name in ("tools/a.cpp", "tools/a.h", "README.md"):
            os.remove(os.path.join(self.root, name))
        self.track()
        for check in ("links", "format", "cppcheck"):
            self.rejects(check, "no ")


CASES = {case.__name__.lower(): case
         for case in (House, Links, Words, Python, Shell, Format, Cppcheck, Tidy, Usage)}

if __name__ == "__main__":
    if len(sys.argv) != 2 or sys.argv[1] not in CASES:
        sys.exit(__doc__)
    suite = unittest.defaultTestLoader.loadTestsFromTestCase(CASES[sys.argv[1]])
    sys.exit(0 if unittest.TextTestRunner(verbosity=2).run(suite).wasSuccessful() else 1)
