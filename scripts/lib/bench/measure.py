"""Runs commands and reads what they took: see bench/measure.cpp."""

import os
import statistics
import subprocess
import tempfile


def read_figures(text):
    return {name: float(value) for name, value in (line.split() for line in text.splitlines())}


class Runner:
    """Runs commands through the program `measure` of a build's program folder."""

    def __init__(self, programs):
        self.programs = programs

    def run(self, *command):
        """Returns the command's figures, its standard output and its standard error."""
        with tempfile.NamedTemporaryFile(mode="r") as figures:
            result = subprocess.run(
                [os.path.join(self.programs, "measure"), figures.name, *map(str, command)],
                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=120,
                check=False)
            if result.returncode != 0:
                raise RuntimeError(f"{' '.join(map(str, command))} exited with "
                                   f"{result.returncode}:\n{result.stderr[-2000:]}")
            return read_figures(figures.read()), result.stdout, result.stderr

    def client(self, *arguments):
        """Runs client_bench. Returns its own figures together with those of the run."""
        figures, _, printed = self.run(os.path.join(self.programs, "client_bench"), *arguments)
        return {**figures, **read_figures(printed)}


def medians(runs):
    """The median of each figure over the runs, which all have the same ones."""
    return {name: statistics.median(run[name] for run in runs) for name in runs[0]}


def interleaved(count, **sides):
    """Calls each of the sides in turn, `count` times; returns the medians of what each returns."""
    results = {name: [] for name in sides}
    for _ in range(count):
        for name, side in sides.items():
            results[name].append(side())
    return {name: medians(runs) for name, runs in results.items()}
