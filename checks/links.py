# SPDX-License-Identifier: Apache-2.0
"""Checks that relative links resolve, anchors included: in the sites under the given directories, and
in the given Markdown files."""

import pathlib
import re
import sys
import urllib.parse


def of_page(text):
    """The links and the anchors of an HTML page."""
    return re.findall(r'\b(?:href|src)="([^"]+)"', text), re.findall(
        r'\b(?:id|name)="([^"]+)"', text
    )


def of_markdown(text):
    """Those of a Markdown text. A git host gives the headings their anchors."""
    text = re.sub(r"^```.*?^```", "", text, flags=re.M | re.S)
    headings = re.findall(r"^#+ +(.*?) *$", text, re.M)
    anchors = [re.sub(r"[^\w\- ]", "", each.lower()).replace(" ", "-") for each in headings]
    return re.findall(r"\]\(([^)\s]+)\)", text), anchors


files, count, broken = {}, 0, []
for path in map(pathlib.Path, sys.argv[1:]):
    pages, links_of = ([*path.rglob("*.html")], of_page) if path.is_dir() else ([path], of_markdown)
    files |= {page.resolve(): links_of(page.read_text(encoding="utf-8")) for page in pages}
    broken += [] if pages else [f"{path} has no pages"]
for path, (links, _) in files.items():
    for link in map(urllib.parse.urlsplit, sorted(set(links))):
        if link.scheme or link.netloc:
            continue
        count += 1
        target = (path.parent / urllib.parse.unquote(link.path)).resolve() if link.path else path
        anchors = files.get(target, (None, [link.fragment]))[1]
        if not target.exists() or (link.fragment and link.fragment not in anchors):
            broken.append(f"{path.relative_to(pathlib.Path.cwd())}: {link.geturl()}")
print("\n".join(broken) or f"{len(files)} pages, {count} links", flush=True)
sys.exit(bool(broken) or not files)
