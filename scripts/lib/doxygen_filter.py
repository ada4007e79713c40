#!/usr/bin/env python3
"""Prints a page of docs/ in the form that Doxygen reads.

Usage: doxygen_filter.py PAGE

Pages are written for readers of the repository. For Doxygen
 - each heading gets an id: PAGE for the title, PAGE-heading-text for the others
 - a link to a page or a heading becomes a reference to that id
 - a link to any other file of the repository becomes text with the file's path
 - a line that only links to a .dot file becomes its drawing
Links elsewhere, images and fenced code stay as they are.
"""
import os
import re
import sys

FENCED = re.compile(r"(^ *```.*?^ *```$)", re.MULTILINE | re.DOTALL)
DRAWING = re.compile(r"^\[[^\]]*\]\(([\w-]+\.dot)\)$", re.MULTILINE)
LINK = re.compile(r"(?<!!)\[([^\]]*)\]\((?!https?:|mailto:)([^)#\s]*)(#[^)]*)?\)")
HEADING = re.compile(r"^(#+) (.*)$", re.MULTILINE)


def anchor(heading):
    """The anchor that Markdown viewers give to a heading."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


def main():
    page = os.path.abspath(sys.argv[1])
    folder, name = os.path.split(page)
    name = name[:-len(".md")]

    def reference(match):
        text, target, heading = match.groups(default="")
        path = os.path.normpath(os.path.join(folder, target)) if target else page
        if os.path.dirname(path) != folder or not path.endswith(".md") or not os.path.isfile(path):
            file = os.path.relpath(path, os.path.dirname(folder))
            return text if text.strip("`") == file else f"{text} (`{file}`)"
        ident = os.path.basename(path)[:-len(".md")] + heading.replace("#", "-")
        return '@ref {} "{}"'.format(ident, text.replace("\n", " "))

    def with_id(match):
        level, text = match.groups()
        return f"{match.group()} {{#{name}{'' if level == '#' else '-' + anchor(text)}}}"

    with open(page, encoding="utf-8") as file:
        parts = FENCED.split(file.read())
    for i in range(0, len(parts), 2):  # the others are fenced code
        parts[i] = DRAWING.sub(r"@dotfile \1", parts[i])
        parts[i] = HEADING.sub(with_id, LINK.sub(reference, parts[i]))
    sys.stdout.write("".join(parts))


if __name__ == "__main__":
    main()
