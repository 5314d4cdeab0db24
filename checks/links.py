# SPDX-License-Identifier: Apache-2.0
"""Checks that relative links resolve: in the site under the given directory, anchors included, and
in the Markdown files that are named after it."""

import html.parser
import pathlib
import re
import sys
import urllib.parse


class Page(html.parser.HTMLParser):
    """The links and the anchors of one page."""

    def __init__(self, path):
        super().__init__()
        self.links, self.anchors = set(), set()
        self.feed(path.read_text(encoding="utf-8"))

    def handle_starttag(self, tag, attributes):
        for name, value in attributes:
            if name in ("href", "src") and value:
                self.links.add(value)
            elif name in ("id", "name"):
                self.anchors.add(value)


def targets(path, links):
    """The relative ones among the links of a file, as (link, file, anchor)."""
    for link in sorted(links):
        parts = urllib.parse.urlsplit(link)
        if not parts.scheme and not parts.netloc:
            file = path.parent / urllib.parse.unquote(parts.path) if parts.path else path
            yield link, file.resolve(), urllib.parse.unquote(parts.fragment)


def heading_anchors(text):
    """The anchors that a git host gives to the headings of a Markdown text."""
    headings = re.findall(r"^#+ +(.*?) *$", text, re.MULTILINE)
    return {re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-") for heading in headings}


def main(site, *markdown):
    pages = {path.resolve(): Page(path) for path in pathlib.Path(site).rglob("*.html")}
    files = {path: (page.links, page.anchors) for path, page in pages.items()}
    for path in map(pathlib.Path, markdown):
        text = re.sub(r"^```.*?^```", "", path.read_text(encoding="utf-8"), flags=re.M | re.S)
        links = set(re.findall(r"\]\(([^)\s]+)\)", text))
        files[path.resolve()] = (links, heading_anchors(text))
    count = 0
    broken = []
    for path, (links, _) in files.items():
        for link, file, anchor in targets(path, links):
            count += 1
            if not file.exists() or (anchor and file in files and anchor not in files[file][1]):
                broken.append(f"{path.relative_to(pathlib.Path.cwd())}: {link}")
    print("\n".join(broken) or f"{len(pages)} pages, {count} links", flush=True)
    return bool(broken) or not pages


sys.exit(main(*sys.argv[1:]))
