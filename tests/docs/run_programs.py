#!/usr/bin/env python3
"""Compiles the programs of one page and runs its commands. Works in the current folder.

Usage: run_programs.py PAGE PORT TLS_PORT COMPILER

A block of C++ goes to the file that its first line names ("// file: NAME"), or to that of the block
before. In a block of console text each line that starts with "$ " is run, and the lines behind it
are what it has to print; "8080" stands for PORT, "8443" for TLS_PORT and "g++" for COMPILER. What
has no main is compiled by itself. Exits 1 at the first difference.
"""
import pathlib
import re
import subprocess
import sys

STRICT = ["-Wall", "-Wextra", "-Werror", "-pedantic"]
FENCED = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
MARK = re.compile(r"// file: ([\w.]+)\n")


def fail(message):
    print(message, file=sys.stderr)
    sys.exit(1)


def write_files(page):
    """Writes the page's files; returns their names."""
    files, name = {}, None
    for language, block in FENCED.findall(page):
        if language != "cpp":
            continue
        mark = MARK.match(block)
        if mark:
            name = mark.group(1)
            files[name] = block
        elif name is None:
            fail("a block of C++ belongs to no file:\n" + block)
        else:
            files[name] += "\n" + block
    for name, content in files.items():
        pathlib.Path(name).write_text(content, encoding="utf-8")
    return files


def commands(page):
    """Yields each command with what it has to print."""
    for language, block in FENCED.findall(page):
        if language != "console":
            continue
        if not block.startswith("$ "):
            fail("no command comes first here:\n" + block)
        for part in re.split(r"^\$ ", block, flags=re.MULTILINE)[1:]:
            command, _, output = part.partition("\n")
            yield command, output


def main():
    page = pathlib.Path(sys.argv[1]).read_text(encoding="utf-8")
    port, tls_port, compiler = sys.argv[2:]
    files = write_files(page)
    compiled = set()
    for command, output in commands(page):
        print("$ " + command, flush=True)
        words = command.split()
        if words[0] == "g++":
            compiled.add(words[2])
            command = " ".join([compiler, *STRICT, command[len("g++"):]])
        command = command.replace("8080", port).replace("8443", tls_port)
        result = subprocess.run(["bash", "-c", command], timeout=120, stdout=subprocess.PIPE,
                                stderr=subprocess.STDOUT, encoding="utf-8", check=False)
        print(result.stdout, end="", flush=True)
        if result.returncode != 0 or result.stdout != output:
            fail(f"exit code {result.returncode}, and the page has:\n{output}")
    for name, content in files.items():
        if "int main(" in content:
            if name not in compiled:
                fail(f"no command of the page compiles {name}")
            continue
        print("compiling " + name, flush=True)
        include = subprocess.run(["pkg-config", "--cflags", "Http2Client"], check=True,
                                 stdout=subprocess.PIPE, encoding="utf-8").stdout.split()
        subprocess.run([compiler, "-std=c++11", *STRICT, *include, "-fsyntax-only", "-x", "c++",
                        name], check=True)


if __name__ == "__main__":
    main()
