# SPDX-License-Identifier: Apache-2.0
"""Checks that every test, check, preset and file that docs/trust.md names in code type is there, and
that the page has no figure that could become wrong: it names the check that prints it."""

import json
import pathlib
import re
import subprocess
import sys

OTHER = re.compile(r"\./dev check.*|std::\w+|auto|char")  # not names of this project
FIGURE = re.compile(r"\b\d[\d,]* (?:%|operations|combinations|kinds|tests|inputs|threads|look-ups)")


def read(pattern):
    return "".join(
        path.read_text(encoding="utf-8") for path in sorted(pathlib.Path().glob(pattern))
    )


tests = re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", read("tests/*.cpp"), re.M)
known = {suite for suite, _ in tests} | {f"{suite}.{name}" for suite, name in tests}
known |= {f"{suite}.*" for suite, _ in tests} | {f"…{name}" for _, name in tests} | {"replay_*"}
known |= set(
    re.findall(r"add_test\(NAME ([\w.]+) ", read("tests/**/*.txt") + read("tests/**/*.cmake"))
)
known |= {f"replay_{corpus.name}" for corpus in pathlib.Path("fuzz/corpus").iterdir()}
known |= {preset["name"] for preset in json.loads(read("CMakePresets.json"))["configurePresets"]}
known |= set(re.findall(r'^(?:all=")?([a-z][a-z0-9-]+) {2,}', read("checks/run"), re.M))
for file in map(pathlib.Path, subprocess.check_output(["git", "ls-files"], text=True).split("\n")):
    known |= {str(file), file.name, file.stem, *map(str, file.parents)}

page = read("docs/trust.md")
named = set(re.findall(r"`([^`]+)`", page))
wrong = [f"`{n}`" for n in sorted(named - known) if not OTHER.fullmatch(n)] + FIGURE.findall(page)
print("\n".join(f"docs/trust.md: {what}" for what in wrong) or f"{len(named)} names", flush=True)
sys.exit(bool(wrong))
