#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks and makes one table of them.

    report.py BUILD              measures and prints the table
    report.py BUILD --quick      the same within two minutes, with fewer repetitions
    report.py BUILD --write DIR  also writes benchmarks.md, benchmarks-all.md and benchmarks.svg to DIR
    report.py BUILD --last       uses the figures of the last run instead of measuring
"""
import argparse
import datetime
import json
import math
import os
import pathlib
import platform
import re
import resource
import shutil
import statistics
import subprocess
import sys
import tempfile

sys.dont_write_bytecode = True  # leave nothing beside the sources
from rows import CONTRACTS, FRONT, all_rows, label

HERE = pathlib.Path(__file__).resolve().parent
PROGRAMS = ("courier_benchmarks", "courier_benchmarks_O2", "courier_benchmarks_O3")

# ---- Measuring ---------------------------------------------------------------------------------


def figure(values, **more):
    """The median, and the distance of the quartiles divided by it."""
    quartiles = statistics.quantiles(values, n=4) if len(values) > 1 else values * 3
    middle = statistics.median(values)
    return {"value": middle, "spread": (quartiles[2] - quartiles[0]) / (middle or 1), **more}


def run_benchmarks(build, quick):
    """The medians of all repetitions, for one operation each."""
    samples = {}

    def run(program, chosen, repetitions, prefix=""):
        with tempfile.NamedTemporaryFile(suffix=".json") as out:
            ran = subprocess.run(
                [
                    build / program,
                    f"--benchmark_filter={chosen}",
                    "--benchmark_enable_random_interleaving=true",
                    f"--benchmark_repetitions={repetitions}",
                    f"--benchmark_min_time={0.01 if quick else 0.02}",
                    f"--benchmark_out={out.name}",
                    "--benchmark_out_format=json",
                ],
                capture_output=True,
                text=True,
            )
            if ran.returncode:
                sys.exit(ran.stderr)
            results = json.load(out)["benchmarks"]
        for result in (each for each in results if each["run_type"] == "iteration"):
            clock = "real_time" if "_time" in result["run_name"] else "cpu_time"
            name = re.match(r"[^/]+/\d+/\w+", result["run_name"])[0]
            if name.startswith("append"):
                name = prefix + name
            if result["threads"] > 1:
                name += f"@{result['threads']}"
            one = samples.setdefault(name, {"times": [], "allocations": [], "bytes": []})
            one["times"].append(result[clock] / result["operations"])
            one["allocations"].append(result["allocations"])
            one["bytes"].append(result.get("bytes", 0))

    for program in PROGRAMS:
        print(f"running {program} ...", file=sys.stderr)
        run(program, ".", 3 if quick else 25, "fragmented_")
    # Whether a block can grow in place depends on the other blocks of the process, so appending runs
    # among all the others and again in a process of its own.
    appends = subprocess.run(
        [build / PROGRAMS[0], "--benchmark_list_tests", "--benchmark_filter=^append"],
        capture_output=True,
        text=True,
    )
    for _ in range(3 if quick else 5):
        for name in appends.stdout.split():
            run(PROGRAMS[0], f"^{re.escape(name)}$", 1 if quick else 5)
    figures = {}
    for name, one in samples.items():
        figures[name] = figure(one["times"], allocations=statistics.median(one["allocations"]))
        work, n, who = re.match(r"([^/]+)/(\d+)/([^@]+)", name).groups()
        if work == "fan_out" and int(n) >= 10000:
            figures[f"bytes/{n}/{who}"] = figure(one["bytes"])
    for name in [name for name in figures if name.endswith("@2")]:
        alone = figures[name[:-2]]["value"]
        figures[name[:-2].replace("has", "scaling", 1)] = figure(
            [alone / time for time in samples[name]["times"]]
        )
    return figures


def run_cold(build, quick):
    """Appending in a process that has done nothing before; for each piece."""
    times = {}
    for _ in range(3 if quick else 25):
        for who in ("courier", "vector", "string"):
            name = f"cold_append256/1048576/{who}"
            run = subprocess.run(
                [build / PROGRAMS[0], "--cold", name], capture_output=True, text=True, check=True
            )
            times.setdefault(name, []).append(float(run.stdout) / (1048576 / 256))
    return {name: figure(values) for name, values in times.items()}


def count_instructions(build):
    """Instructions for each operation, from two counts that differ in the number of operations."""
    if not shutil.which("valgrind"):
        return {}
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run(
            [
                "valgrind",
                "--tool=callgrind",
                f"--callgrind-out-file={folder}/out",
                build / PROGRAMS[0],
                "--instructions",
            ],
            capture_output=True,
            env={**os.environ, "LD_BIND_NOW": "1"},
        )
        dumps = [path.read_text() for path in pathlib.Path(folder).glob("out.*")]
    counts, per_time = {}, {}
    for dump in dumps if run.returncode == 0 else []:
        name, times, per_time_text = re.search(r"Client Request: (\S+) (\S+) (\S+)", dump).groups()
        total = int(re.search(r"^totals: (\d+)", dump, re.MULTILINE)[1])
        counts.setdefault(name, {})[int(times)] = total
        per_time[name] = float(per_time_text)
    each = {
        name: (two[max(two)] - two[min(two)]) / (max(two) - min(two))
        for name, two in counts.items()
    }
    loop = each.pop("empty/0/loop", 0)
    return {
        f"instructions/{name}": figure([round((count - loop) / per_time[name], 1) + 0.0])
        for name, count in each.items()
    }


def is_immediate(build):
    """Whether the function that returns a type identifier does nothing but load a constant."""
    listing = subprocess.run(
        [
            "objdump",
            "-d",
            "--no-show-raw-insn",
            "--disassemble=courierSampleTypeID",
            build / PROGRAMS[0],
        ],
        capture_output=True,
        text=True,
        check=True,
    ).stdout
    code = [line.split("\t")[1].strip() for line in listing.splitlines() if "\t" in line]
    if platform.machine() == "x86_64":
        constant = len(code) > 1 and re.match(r"movabs \$0x", code[0]) and code[1].startswith("ret")
    else:
        constant = all(re.match(r"mov|ret|nop", line) for line in code)
    return {"immediate": figure([1.0 if constant else 0.0], code="; ".join(code[:2]))}


def include_costs(config, quick):
    """Processor time to compile, and lines, of a file that includes one header or its like."""
    command = [config["compiler"], "-std=c++20", "-O2", "-x", "c++", "-"]
    command += [f"-I{path}" for path in config["includes"].split(";") if path != "/usr/include"]

    def compiled(source, *options):
        before = resource.getrusage(resource.RUSAGE_CHILDREN)
        out = subprocess.run(
            [*command, *options], input=source, text=True, check=True, stdout=subprocess.PIPE
        ).stdout
        after = resource.getrusage(resource.RUSAGE_CHILDREN)
        return 1e9 * (after.ru_utime + after.ru_stime - before.ru_utime - before.ru_stime), out

    times, lines = {}, {}
    for repetition in range(2 if quick else 9):
        for header, contract in CONTRACTS.items():
            for who, names in (("courier", [header]), ("std", contract.split())):
                name = f"include/{header}/{who}"
                source = "".join(f"#include <{one}>\n" for one in names)
                times.setdefault(name, []).append(compiled(source, "-c", "-o", "/dev/null")[0])
                if repetition == 0:
                    text = compiled(source, "-E")[1]
                    lines[name] = sum(1 for line in text.splitlines() if line[:1] != "#")
    return {name: figure(values, lines=lines[name]) for name, values in times.items()}


# ---- Showing -----------------------------------------------------------------------------------


def number(of, unit, digits=3):
    """A figure with its unit, rounded to that many digits; a count, which has none, is whole."""
    if not unit:
        return f"{of:,.0f}"
    if unit == "ns":
        scales = (("s", 1e9), ("ms", 1e6), ("µs", 1e3), ("ns", 0))
        unit, scale = next(each for each in scales if of >= each[1])
        of /= scale or 1
    of = float(f"{of:.{digits}g}")
    decimals = max(0, digits - 1 - math.floor(math.log10(of or 1)))
    return f"{of:,.{decimals}f}{'' if unit == '×' else ' '}{unit}"


def goals(f, row):
    """The goals of a row, each marked: ✓ reached, ≈ missed by less than a tenth, ✗ missed."""
    return [
        f"{'✓' if test(f, row) >= 1 else '≈' if test(f, row) >= 0.9 else '✗'} {text}"
        for text, test in row.goals
    ]


HEAD = ("work", "ours", "peers", "limit", "× best", "× limit", "allocs", "goal")


def cells(f, row):
    """One line of the table. "~" marks a ratio of figures that varied by more than a tenth."""

    def cost(who):
        one = f[f"{row.work}/{who}"]
        lines = f" for {one['lines']:,} lines" if "lines" in one else ""
        return number(one["value"], row.unit) + lines

    def ratio(who):
        unsure = max(f[row.ours]["spread"], f[f"{row.work}/{who}"]["spread"]) > 0.1
        return f"{'~' * unsure}{row.ratio(f, who):.2f}".replace("inf", "∞")

    best, limited, allocated = row.best(f), row.limit in f, f[row.ours].get("allocations")
    return [
        row.title,
        cost(row.ours.rpartition("/")[2]),
        ", ".join(f"{label(peer)} {cost(peer)}" for peer in row.peers),
        cost("limit") if limited else "",
        ratio(best) if best else "",
        ratio("limit") if limited else "",
        "" if allocated is None else f"{allocated:,.2f}".rstrip("0").rstrip("."),
        ", ".join(goals(f, row)),
    ]


def markdown(head, rows):
    lines = [f"| {' | '.join(head)} |", "|---" * len(head) + "|"]
    return "\n".join([*lines, *(f"| {' | '.join(row)} |" for row in rows)])


def plain(head, rows):
    widths = [max(map(len, column)) for column in zip(head, *rows)]
    return "\n".join("  ".join(map(str.ljust, row, widths)).rstrip() for row in (head, *rows))


def whole_table(f, groups, draw, heading):
    """All rows, each group under its heading."""
    return "\n\n".join(
        f"{heading} {group}\n\n" + draw(HEAD, [cells(f, row) for row in rows if row.ours in f])
        for group, rows in groups.items()
    )


def front_rows(f, groups):
    """The rows that a user decides by: title, row and best peer."""
    by_name = {row.ours: row for rows in groups.values() for row in rows if row.ours in f}
    return [(title, by_name[name], by_name[name].best(f)) for name, title in FRONT.items()]


def front_table(f, groups):
    rows = []
    for title, row, best in front_rows(f, groups):
        ours, peer = f[row.ours]["value"], f[f"{row.work}/{best}"]["value"]
        rows.append(
            [
                title,
                number(ours, row.unit, 2),
                f"{number(peer, row.unit, 2)}, {label(best)}",
                number(row.ratio(f, best), "×", 2),
            ]
        )
    return markdown(("work", "courier", "best alternative", "times better"), rows)


def summary(f, groups):
    marks = [
        goal[0]
        for rows in groups.values()
        for row in rows
        if row.ours in f
        for goal in goals(f, row)
    ]
    return (
        f"Of {len(marks)} goals {marks.count('✓')} are reached (✓), {marks.count('≈')} are "
        f"missed by less than a tenth (≈) and {marks.count('✗')} by more (✗)."
    )


def picture(f, groups, path):
    """Lets gnuplot draw the ratios of the front table."""
    rows = front_rows(f, groups)
    with tempfile.NamedTemporaryFile("w", suffix=".data") as data:
        for i, (title, row, best) in enumerate(rows):
            ratio = row.ratio(f, best)
            data.write(f'{i} {ratio} "{title}" "{number(ratio, "×", 2)} {label(best)}"\n')
        data.flush()
        subprocess.run(
            ["gnuplot", "-e", f"data='{data.name}'; rows={len(rows)}", HERE / "benchmarks.gp"],
            check=True,
            stdout=path.open("w"),
        )


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return (
        f"{cpu[1] if cpu else platform.machine()}, {os.cpu_count()} cores, "
        f"{platform.system()} {platform.release()}"
    )


def main():
    parser = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    parser.add_argument("build", type=pathlib.Path, help="the build directory")
    parser.add_argument("--quick", action="store_true", help="finish within two minutes")
    parser.add_argument("--write", type=pathlib.Path, metavar="DIR", help="write the documents")
    parser.add_argument("--last", action="store_true", help="show the last run once more")
    options = parser.parse_args()
    if options.quick and options.write:
        parser.error("figures of a quick run are too rough to be written into the documents")
    build = options.build / "benchmarks"
    config = json.loads((build / "build.json").read_text())
    saved = build / "figures.json"
    if options.last:
        run = json.loads(saved.read_text())
    else:
        f = {
            **run_benchmarks(build, options.quick),
            **run_cold(build, options.quick),
            **count_instructions(build),
            **is_immediate(build),
            **include_costs(config, options.quick),
        }
        run = {
            "quick": options.quick,
            "figures": f,
            "date": datetime.date.today().isoformat(),
            "machine": machine(),
        }
        saved.write_text(json.dumps(run, indent=1))
    f = run["figures"]
    compiler = "g++" if config["version"].startswith("GNU") else "clang++"
    groups = all_rows(compiler)
    print(f"{run['machine']}; {config['version']}, {config['flags']}; {run['date']}")
    print(whole_table(f, groups, plain, "=="), summary(f, groups), sep="\n\n")
    if run["quick"]:
        print("This was a quick run of three short repetitions: its figures are rough.")
    elif options.write:
        options.write.mkdir(parents=True, exist_ok=True)
        picture(f, groups, options.write / "benchmarks.svg")
        contents = {
            "DATE": run["date"],
            "MACHINE": run["machine"],
            "COMPILER": config["version"],
            "FLAGS": config["flags"],
            "FRONT": front_table(f, groups),
            "TABLE": whole_table(f, groups, markdown, "##"),
            "SUMMARY": summary(f, groups),
            "CODE": f["immediate"]["code"],
        }
        for page in ("benchmarks.md", "benchmarks-all.md"):
            text = (HERE / f"{page}.in").read_text()
            for name, content in contents.items():
                text = text.replace(f"@{name}@", content)
            (options.write / page).write_text(text)


if __name__ == "__main__":
    sys.exit(main())
