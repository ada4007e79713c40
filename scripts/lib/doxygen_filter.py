#!/usr/bin/env python3
"""Makes of a page in docs/ what doxygen can read: prints the page with other links.

Usage: doxygen_filter.py PAGE

A page is written for a reader of the repository. In the built documentation there are the pages of
docs/ alone, without anchors of their own, and pictures are drawn:
 - a link to another page stays, without its anchor
 - a link to any other file becomes its text, with the file's path
 - a line that is nothing but a link to a .dot file becomes the picture
Links elsewhere and fenced code are left alone.
"""
import os
import re
import sys

PICTURE = re.compile(r"^\[[^\]]*\]\(([\w-]+\.dot)\)$")
LINK = re.compile(r"\[([^\]]*)\]\((?!https?:|mailto:|#)([^)#\s]+)(?:#[^)]*)?\)")


def main():
    page = sys.argv[1]
    folder = os.path.dirname(os.path.abspath(page))
    root = os.path.dirname(folder)

    def replaced(match):
        text, target = match.groups()
        path = os.path.normpath(os.path.join(folder, target))
        if os.path.dirname(path) == folder and path.endswith(".md") and os.path.isfile(path):
            return f"[{text}]({target})"
        name = os.path.relpath(path, root)
        return text if text.strip("`") == name else f"{text} (`{name}`)"

    fenced = False
    with open(page, encoding="utf-8") as lines:
        for line in lines:
            if line.lstrip().startswith("```"):
                fenced = not fenced
            elif not fenced:
                line = PICTURE.sub(r"@dotfile \1", line.rstrip("\n")) + "\n"
                line = LINK.sub(replaced, line)
            sys.stdout.write(line)


if __name__ == "__main__":
    main()
