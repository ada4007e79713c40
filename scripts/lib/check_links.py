#!/usr/bin/env python3
"""Looks whether what the documents link to is there.

Usage: check_links.py    (in the root of the working tree)

Reads every tracked *.md. A relative link leads to a tracked file or to a folder with tracked
files, without regard to what else lies around here; an anchor to a heading of the document, or to
an explicit id. A link's label is defined. Links elsewhere (http, https, mailto) are judged by
their form alone: nothing is fetched, so a page that has gone is not noticed.

Code is no link, but for a span in the text that starts like `scripts/test`, with a tracked folder
of the root and a slash: the first word of such a span is a tracked file or folder, too, unless it
has a placeholder in capitals, as fuzz/findings/HARNESS.

Prints each link that leads nowhere, and exits 1 if there is one.
"""
import os
import re
import subprocess
import sys
import urllib.parse

FENCE = re.compile(r"^ {0,3}(?:>\s*)*(`{3,}|~{3,})")
CODE_SPAN = re.compile(r"(`+)(?!`)(.+?)(?<!`)\1(?!`)")
PATH = re.compile(r"([\w.+-]+)/[\w./+-]*$")
PLACEHOLDER = re.compile(r"/[A-Z]+(/|$)")
COMMENT = re.compile(r"<!--.*?-->", re.DOTALL)
# [text](target "title"), also an image, and with one image as its text
INLINE = re.compile(r"\]\(\s*(<[^>]*>|[^\s()]*(?:\([^\s()]*\)[^\s()]*)*)(?:\s+[\"'(].*?[\"')])?\s*\)")
DEFINITION = re.compile(r"^ {0,3}\[([^\]^]+)\]:\s*(<[^>]*>|\S+)", re.MULTILINE)
BY_LABEL = re.compile(r"\[([^\[\]]+)\]\[([^\[\]]*)\]")
AUTOMATIC = re.compile(r"<((?:https?|mailto):[^>\s]*)>")
HTML = re.compile(r"<(?:a|img)\s[^>]*?(?:href|src)\s*=\s*[\"']([^\"']*)[\"']", re.IGNORECASE)
HEADING = re.compile(r"^ {0,3}#{1,6}\s+(.*?)(?:\s+#+)?\s*$", re.MULTILINE)
UNDERLINED = re.compile(r"^ {0,3}(\S.*?)\s*\n {0,3}(?:=+|-+)\s*$", re.MULTILINE)
EXPLICIT_ID = re.compile(r"\s*\{#([\w.:-]+)\}\s*$")
HTML_ID = re.compile(r"<[a-z]+\s[^>]*?(?:id|name)\s*=\s*[\"']([^\"']+)[\"']", re.IGNORECASE)
HOST = re.compile(r"^[a-z0-9]([a-z0-9-]*[a-z0-9])?(\.[a-z0-9]([a-z0-9-]*[a-z0-9])?)*$", re.IGNORECASE)
MAIL = re.compile(r"^[^@\s]+@[^@\s]+\.[^@\s]+$")


def blank(text):
    """As many lines as the text has, and nothing else: line numbers stay."""
    return "\n" * text.count("\n")


def without_blocks(text):
    """The text without comments and fenced code."""
    lines, fence = [], None
    for line in COMMENT.sub(lambda match: blank(match.group()), text).split("\n"):
        match = FENCE.match(line)
        if fence is None:
            if match:
                fence = match.group(1)
            lines.append("" if match else line)
        else:
            if match and match.group(1).startswith(fence) and not line[match.end():].strip():
                fence = None
            lines.append("")
    return "\n".join(lines)


def slug(heading):
    """The anchor that a reader of Markdown makes of a heading."""
    heading = re.sub(r"!?\[([^\]]*)\]\([^)]*\)", r"\1", heading)
    heading = re.sub(r"[*`]|(?<!\w)_|_(?!\w)", "", heading).strip().lower()
    return re.sub(r"[^\w\- ]", "", heading).replace(" ", "-")


def anchors_of(text):
    anchors, seen = set(), {}
    body = without_blocks(text)
    headings = [(match.start(), match.group(1)) for match in HEADING.finditer(body)]
    headings += [(match.start(), match.group(1)) for match in UNDERLINED.finditer(body)]
    for _, heading in sorted(headings):
        explicit = EXPLICIT_ID.search(heading)
        if explicit:
            anchors.add(explicit.group(1))
            heading = heading[:explicit.start()]
        name = slug(heading)
        count = seen.get(name, 0)
        seen[name] = count + 1
        anchors.add(f"{name}-{count}" if count else name)
    anchors.update(HTML_ID.findall(body))
    return anchors


def links_of(text):
    """Yields text, offset and target of each link; the target is None for an unknown label."""
    body = CODE_SPAN.sub(lambda match: "`" * len(match.group()), without_blocks(text))
    for match in INLINE.finditer(body):
        yield body, match.start(), match.group(1).strip("<>")
    labels = set()
    for match in DEFINITION.finditer(body):
        labels.add(match.group(1).lower())
        yield body, match.start(), match.group(2).strip("<>")
    for match in AUTOMATIC.finditer(body):
        yield body, match.start(), match.group(1)
    for match in HTML.finditer(body):
        yield body, match.start(), match.group(1)
    for match in BY_LABEL.finditer(body):
        if (match.group(2) or match.group(1)).lower() not in labels:
            yield body, match.start(), None


def paths_of(text):
    """Yields text, offset and path of each span of code that reads like a path."""
    body = without_blocks(text)
    for match in CODE_SPAN.finditer(body):
        words = match.group(2).split()
        if words and PATH.match(words[0]):
            yield body, match.start(), words[0]


def judge_elsewhere(target):
    """What is wrong with the form of a link to elsewhere, or None."""
    try:
        parts = urllib.parse.urlsplit(target)
        port_fits = parts.port is None or parts.port > 0
    except ValueError as error:
        return str(error)
    if parts.scheme == "mailto":
        return None if MAIL.match(parts.path) else "no mail address"
    if parts.scheme not in ("http", "https"):
        return f"unexpected scheme {parts.scheme}"
    if not parts.hostname or not HOST.match(parts.hostname) or not port_fits:
        return "no host"
    return None


class Tree:
    def __init__(self, files):
        self.files = set(files)
        self.folders = {"."}
        for path in self.files:
            while path := os.path.dirname(path):
                self.folders.add(path)
        self.anchors = {}

    def has_anchor(self, path, anchor):
        if path not in self.anchors:
            with open(path, encoding="utf-8") as file:
                self.anchors[path] = anchors_of(file.read())
        return anchor in self.anchors[path]

    def judge_path(self, path):
        """What is wrong with a path, seen from the root, or None."""
        if path.split("/", 1)[0] not in self.folders or PLACEHOLDER.search(path):
            return None
        path = os.path.normpath(path)
        return None if path in self.files or path in self.folders else "no such tracked file"

    def judge(self, document, target):
        """What is wrong with a link, or None."""
        if target is None:
            return "label without a definition"
        if re.match(r"[a-zA-Z][a-zA-Z0-9+.-]*:", target) or target.startswith("//"):
            return judge_elsewhere(target)
        path, _, anchor = target.partition("#")
        path = urllib.parse.unquote(path)
        if os.path.isabs(path):
            return "absolute path"
        if path:
            path = os.path.normpath(os.path.join(os.path.dirname(document), path))
        elif anchor:
            path = document
        else:
            return "leads nowhere"
        if path not in self.files and path not in self.folders:
            return "no such tracked file"
        if anchor and path.endswith(".md") and not self.has_anchor(path, anchor):
            return f"no such heading in {path}"
        return None


def main():
    listing = subprocess.run(["git", "ls-files", "-z"], check=True, stdout=subprocess.PIPE,
                             encoding="utf-8").stdout
    tree = Tree(path for path in listing.split("\0") if path and os.path.isfile(path))
    documents = sorted(path for path in tree.files if path.endswith(".md"))
    links = elsewhere = 0
    wrong = []
    for document in documents:
        with open(document, encoding="utf-8") as file:
            text = file.read()
        judged = []
        for body, offset, target in links_of(text):
            links += 1
            elsewhere += bool(target and re.match(r"(?:https?|mailto):", target))
            shown = target if target is not None else body[offset:].split("\n", 1)[0][:60]
            judged.append((body, offset, shown, tree.judge(document, target)))
        for body, offset, path in paths_of(text):
            judged.append((body, offset, path, tree.judge_path(path)))
        for body, offset, shown, reason in judged:
            if reason:
                line = body.count("\n", 0, offset) + 1
                wrong.append(f"{document}:{line}: {shown}: {reason}")
    if not documents:
        wrong.append("no documents here")
    for place in wrong:
        print(place)
    print(f"{len(documents)} documents, {links} links ({elsewhere} lead elsewhere: only their form "
          f"was judged): {len(wrong)} places are wrong")
    return 1 if wrong else 0


if __name__ == "__main__":
    if len(sys.argv) != 1:
        sys.exit(__doc__)
    sys.exit(main())
