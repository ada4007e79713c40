#!/usr/bin/env python3
"""Holds the tracked files against the rules of this repository that need no other tool.

Usage: check_house.py    (in the root of the working tree)

 - What starts with #! is executable, and nothing else is.
 - A text is UTF-8, has no carriage return and no blank at a line's end, and ends with exactly one
   newline.
 - A header is guarded by the name of its path, and its #endif repeats that name.
 - No code is larger than CODE_LIMIT, and no file larger than FILE_LIMIT.

Which files are text is for git to say (.gitattributes). Prints each place that breaks a rule, and
exits 1 if there is one.
"""
import os
import re
import subprocess
import sys

CODE_LIMIT = 64 * 1024
FILE_LIMIT = 512 * 1024
CODE = re.compile(r"(\.(cpp|h|py|sh|js|cmake)|(^|/)CMakeLists\.txt)$")
BLANK_AT_END = re.compile(rb"[ \t\v\f\r]$")


def tracked_files():
    """Yields path, whether git has it as executable, and whether it is text, of each file."""
    listing = subprocess.run(
        ["git", "ls-files", "-z",
         "--format=%(objectmode)\t%(eolinfo:worktree)\t%(eolattr)\t%(path)"],
        check=True, stdout=subprocess.PIPE, encoding="utf-8").stdout
    for entry in filter(None, listing.split("\0")):
        mode, content, attribute, path = entry.split("\t", 3)
        if os.path.isfile(path):
            yield path, mode == "100755", "-text" not in (content, attribute)


def guard_of(path):
    """The path, below the project's name where the path does not start with one."""
    name = re.sub(r"\W", "_", path).upper()
    return name if path.startswith(("Http2Client/", "CLogWrapper/")) else "HTTP2CLIENT_" + name


def check_mode(path, executable, content):
    starts = content.startswith(b"#!")
    if starts and not executable:
        yield f"{path}: starts with #! and is not executable"
    if executable and not starts:
        yield f"{path}: is executable and does not start with #!"


def check_size(path, content):
    limit = CODE_LIMIT if CODE.search(path) else FILE_LIMIT
    if len(content) > limit:
        yield f"{path}: has {len(content)} bytes, and {limit} is the limit"


def check_text(path, content):
    for number, line in enumerate(content.split(b"\n"), 1):
        if BLANK_AT_END.search(line):
            yield f"{path}:{number}: blank or carriage return at the end of the line"
        try:
            line.decode("utf-8")
        except UnicodeDecodeError:
            yield f"{path}:{number}: not UTF-8"
    if content and not content.endswith(b"\n"):
        yield f"{path}: no newline at the end"
    if content.endswith(b"\n\n") or content == b"\n":
        yield f"{path}: empty line at the end"


def check_guard(path, content):
    guard = guard_of(path).encode()
    opening = re.search(rb"^#.*\n#.*\n", content, re.MULTILINE)
    if not opening or opening.group() != b"#ifndef %b\n#define %b\n" % (guard, guard):
        yield f"{path}: does not open with the guard {guard.decode()}"
    if not content.endswith(b"\n#endif  // %b\n" % guard):
        yield f"{path}: does not end with #endif  // {guard.decode()}"


def main():
    files = texts = 0
    wrong = []
    for path, executable, text in tracked_files():
        files += 1
        with open(path, "rb") as file:
            content = file.read()
        wrong += check_mode(path, executable, content)
        wrong += check_size(path, content)
        if text:
            texts += 1
            wrong += check_text(path, content)
        if path.endswith(".h"):
            wrong += check_guard(path, content)
    if files == 0:
        wrong.append("no tracked files here")
    for line in wrong:
        print(line)
    print(f"{files} files, {texts} of them texts: {len(wrong)} places are wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    if len(sys.argv) != 1:
        sys.exit(__doc__)
    sys.exit(main())
