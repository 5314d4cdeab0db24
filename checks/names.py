# SPDX-License-Identifier: Apache-2.0
"""Checks what the documents say: every test, check, preset and file that docs/trust.md names in code type
is there, and the page has no figure that could become wrong: it names the check that prints it. Every C++
sample in the README and the guides consists of consecutive lines of a program that the tests compile and
run, with the same indentation or four spaces less. The README names the present version."""

import json
import pathlib
import re
import subprocess
import sys
import textwrap

OTHER = re.compile(r"\./dev check.*|std::\w+|auto|char")  # not names of this project
FIGURE = re.compile(r"\b\d[\d,]* (?:%|operations|combinations|kinds|tests|inputs|threads|look-ups)")


def read(*patterns):
    paths = (path for pattern in patterns for path in sorted(pathlib.Path().glob(pattern)))
    return "".join("\n" + path.read_text(encoding="utf-8") for path in paths)


tests = re.findall(r"^TEST(?:_F)?\((\w+), (\w+)\)", read("tests/*.cpp"), re.M)
known = {suite for suite, _ in tests} | {f"{suite}.{name}" for suite, name in tests}
known |= {f"{suite}.*" for suite, _ in tests} | {f"…{name}" for _, name in tests} | {"replay_*"}
known |= set(
    re.findall(r"add\w*_test\((?:NAME )?([\w.]+) ", read("tests/**/*.txt", "tests/**/*.cmake"))
)
known |= {f"replay_{corpus.name}" for corpus in pathlib.Path("fuzz/corpus").iterdir()}
known |= {preset["name"] for preset in json.loads(read("CMakePresets.json"))["configurePresets"]}
known |= set(re.findall(r'^(?:all=")?([a-z][a-z0-9-]+) {2,}', read("checks/run"), re.M))
for file in map(pathlib.Path, subprocess.check_output(["git", "ls-files"], text=True).split("\n")):
    known |= {str(file), file.name, file.stem, *map(str, file.parents)}

page = read("docs/trust.md")
named = set(re.findall(r"`([^`]+)`", page))
wrong = [f"`{n}`" for n in sorted(named - known) if not OTHER.fullmatch(n)] + FIGURE.findall(page)
wrong = [f"docs/trust.md: {what}" for what in wrong]

programs = read("examples/quickstart/main.cpp", "examples/guides/*.cpp", "examples/guides/*.h")
pages = read("README.md", "docs/README.md", "docs/guides/*.md")
samples = re.findall(r"^```cpp\n(.*?)^```", pages, re.M | re.S)
for sample in samples:
    if not any("\n" + lines in programs for lines in (sample, textwrap.indent(sample, " " * 4))):
        wrong.append(f"This sample is in no program of examples/guides:\n{sample}")
version = re.search(r"^ +VERSION (\d+\.\d+)", read("CMakeLists.txt"), re.M)[1]
if f"find_package(courier_hub_serialisation {version} REQUIRED)" not in read("README.md"):
    wrong.append(f"README.md does not ask for version {version}")

print("\n".join(wrong) or f"{len(named)} names, {len(samples)} samples", flush=True)
sys.exit(bool(wrong) or not samples)
