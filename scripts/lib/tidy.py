#!/usr/bin/env python3
"""Runs clang-tidy over C++ sources, several at a time.

Usage: tidy.py BUILD MEMORY JOBS FILE...    (in the root of the working tree)

BUILD has the compile database. A source that several targets compile is judged once, as the first
of them has it; one that no target compiles is judged as C++20 with the root and CLogWrapper/ as
include folders, and named.

MEMORY is a folder that remembers what was clean. A source is judged again only when clang-tidy's
version, its configuration, the command, or any text that the source includes differs: what is
remembered is a hash of all these, comments and macro definitions included.

Prints what clang-tidy finds, and exits 1 if it finds anything.
"""
import concurrent.futures
import hashlib
import json
import os
import shlex
import subprocess
import sys

CLANG, TIDY = "clang++", "clang-tidy"
# What has to do with the output of a compiler, and not with what it reads; with their values.
OUTPUT_OPTIONS = {"-c": 0, "-o": 1, "-MD": 0, "-MMD": 0, "-MT": 1, "-MF": 1, "-MQ": 1}


def read_commands(build):
    """The folder and the arguments with which each source is compiled, without the compiler."""
    commands = {}
    with open(os.path.join(build, "compile_commands.json"), encoding="utf-8") as file:
        for entry in json.load(file):
            arguments = shlex.split(entry["command"])[1:]
            source = os.path.realpath(os.path.join(entry["directory"], entry["file"]))
            kept, skip = [], 0
            for argument in arguments:
                if skip:
                    skip -= 1
                elif argument in OUTPUT_OPTIONS:
                    skip = OUTPUT_OPTIONS[argument]
                elif os.path.realpath(os.path.join(entry["directory"], argument)) != source:
                    kept.append(argument)
            commands.setdefault(source, (entry["directory"], kept))
    return commands


def run(command, folder="."):
    return subprocess.run(command, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)


def fingerprint(version, folder, arguments, source):
    """The hash of everything that the judgement depends on; None if the source cannot be read."""
    text = run([CLANG, *arguments, "-E", "-CC", "-dD", source], folder)
    settings = run([TIDY, "--dump-config", source])
    if text.returncode != 0 or settings.returncode != 0:
        return None
    parts = [version, settings.stdout, "\0".join([folder, *arguments]).encode(), text.stdout]
    return hashlib.sha256(b"\0".join(hashlib.sha256(part).digest() for part in parts)).hexdigest()


class Judge:
    def __init__(self, build, memory):
        self.commands = read_commands(build)
        self.memory = memory
        self.version = run([TIDY, "--version"]).stdout
        os.makedirs(memory, exist_ok=True)

    def is_compiled(self, path):
        return os.path.realpath(path) in self.commands

    def judge(self, path):
        """Returns "clean", "remembered" or "wrong", and what there is to show."""
        source = os.path.realpath(path)
        root = os.getcwd()
        own = (root, ["-std=c++20", f"-I{root}", f"-I{root}/CLogWrapper"])
        folder, arguments = self.commands.get(source, own)
        note = os.path.join(self.memory, path.replace("/", ","))
        mark = fingerprint(self.version, folder, arguments, source)
        if mark and os.path.exists(note):
            with open(note, encoding="ascii") as file:
                if file.read() == mark:
                    return "remembered", ""
        result = run([TIDY, "--quiet", source, "--", *arguments], folder)
        if result.returncode != 0:
            return "wrong", (result.stdout + result.stderr).decode("utf-8", "replace")
        if mark:
            with open(note, "w", encoding="ascii") as file:
                file.write(mark)
        return "clean", ""


def main(build, memory, jobs, files):
    judge = Judge(build, memory)
    counts = {"clean": 0, "remembered": 0, "wrong": 0}
    for path in files:
        if not judge.is_compiled(path):
            print(f"{path}: no target compiles it; judged as C++20")
    with concurrent.futures.ThreadPoolExecutor(jobs) as pool:
        for result in pool.map(judge.judge, files):
            counts[result[0]] += 1
            print(result[1], end="", flush=True)
    print(f"{len(files)} sources: {counts['clean']} judged and clean, {counts['remembered']} clean "
          f"and not changed since, {counts['wrong']} wrong")
    return 1 if counts["wrong"] else 0


if __name__ == "__main__":
    if len(sys.argv) < 5 or not sys.argv[3].isdigit():
        sys.exit(__doc__)
    sys.exit(main(sys.argv[1], sys.argv[2], int(sys.argv[3]), sys.argv[4:]))
