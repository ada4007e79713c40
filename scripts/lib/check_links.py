#!/usr/bin/env python3
"""Prints each relative link of the tracked Markdown files that leads to no file; exits 1 then.

Links and anchors between the pages of docs/ are checked by Doxygen, too, when scripts/docs runs.
"""
import os
import re
import subprocess
import sys

pages = subprocess.check_output(["git", "ls-files", "*.md"], text=True).split()
dead = 0
for page in pages:
    with open(page, encoding="utf-8") as file:
        text = re.sub(r"^```.*?^```$|`[^`\n]*`", "", file.read(), flags=re.DOTALL | re.MULTILINE)
    for target in re.findall(r"\]\(([^()#\s]+)", text):
        path = os.path.join(os.path.dirname(page), target)
        if not re.match(r"https?:|mailto:", target) and not os.path.exists(path):
            print(f"{page}: {target}")
            dead += 1
sys.exit(1 if dead or not pages else 0)
