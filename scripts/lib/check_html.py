#!/usr/bin/env python3
"""Prints each link and image of the HTML pages in FOLDER that leads nowhere; exits 1 if there is one.

Usage: check_html.py FOLDER
"""
import html.parser
import pathlib
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    def __init__(self, path):
        super().__init__()
        self.ids, self.targets = set(), []
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, _tag, attributes):
        for name, value in attributes:
            if name in ("id", "name"):
                self.ids.add(value)
            elif name in ("href", "src", "data"):
                self.targets.append(value)


folder = pathlib.Path(sys.argv[1])
pages = {path.name: Page(path) for path in sorted(folder.glob("*.html"))}
dead = [(name, target) for name, page in pages.items() for target in page.targets
        for url in [urllib.parse.urlsplit(target)] if not url.scheme
        if not (folder / (url.path or name)).exists() or
        url.fragment and url.fragment not in pages[url.path or name].ids]
for name, target in dead:
    print(f"{name}: {target} leads nowhere")
sys.exit(1 if dead or not pages else 0)
