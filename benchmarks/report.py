#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks and makes one table of them.

    report.py BUILD              measures and prints the table
    report.py BUILD --quick      the same within two minutes, with fewer repetitions
    report.py BUILD --write DIR  also writes DIR/benchmarks.md and the pictures, DIR/*.svg
    report.py BUILD --last       takes the figures of the last run instead of measuring
"""
import argparse
import datetime
import json
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
from rows import CONTRACTS, all_rows, label

HERE = pathlib.Path(__file__).resolve().parent
PROGRAMS = ("courier_benchmarks", "courier_benchmarks_O2", "courier_benchmarks_O3")

# ---- Measuring ---------------------------------------------------------------------------------

def figure(values, **more):
    """The median, and how far apart the quartiles are in relation to it."""
    quartiles = statistics.quantiles(values, n=4) if len(values) > 1 else values * 3
    middle = statistics.median(values)
    return {"value": middle, "spread": (quartiles[2] - quartiles[0]) / (middle or 1), **more}


def run_benchmarks(build, quick):
    """The medians of all repetitions, each divided by the operations it was made of."""
    samples = {}

    def run(program, chosen, repetitions, prefix=""):
        with tempfile.NamedTemporaryFile(suffix=".json") as out:
            ran = subprocess.run(
                [build / program, f"--benchmark_filter={chosen}",
                 "--benchmark_enable_random_interleaving=true",
                 f"--benchmark_repetitions={repetitions}",
                 f"--benchmark_min_time={0.01 if quick else 0.02}",
                 f"--benchmark_out={out.name}", "--benchmark_out_format=json"],
                capture_output=True, text=True)
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
    # Whether a block can grow in place depends on what else its process has allocated: what appends
    # has run among all the others, and runs again in a process of its own.
    appends = subprocess.run([build / PROGRAMS[0], "--benchmark_list_tests",
                              "--benchmark_filter=^append"], capture_output=True, text=True)
    for _ in range(3 if quick else 5):
        for name in appends.stdout.split():
            run(PROGRAMS[0], f"^{re.escape(name)}$", 1 if quick else 5)
    figures = {}
    for name, one in samples.items():
        figures[name] = figure(one["times"],
                               allocations=statistics.median(one["allocations"]))
        work, n, who = re.match(r"([^/]+)/(\d+)/([^@]+)", name).groups()
        if work == "fan_out" and int(n) >= 10000:
            figures[f"bytes/{n}/{who}"] = figure(one["bytes"])
    for name in [name for name in figures if name.endswith("@2")]:
        alone = figures[name[:-2]]["value"]
        figures[name[:-2].replace("has", "scaling", 1)] = figure(
            [alone / time for time in samples[name]["times"]])
    return figures


def run_cold(build, quick):
    """What a process does that has done nothing before; for each piece."""
    times = {}
    for _ in range(3 if quick else 25):
        for who in ("courier", "vector", "string"):
            name = f"cold_append256/1048576/{who}"
            run = subprocess.run([build / PROGRAMS[0], "--cold", name], capture_output=True,
                                 text=True, check=True)
            times.setdefault(name, []).append(float(run.stdout) / (1048576 / 256))
    return {name: figure(values) for name, values in times.items()}


def count_instructions(build):
    """Instructions for each operation, from two counts that differ in the number of operations."""
    if not shutil.which("valgrind"):
        return {}
    with tempfile.TemporaryDirectory() as folder:
        run = subprocess.run(
            ["valgrind", "--tool=callgrind", f"--callgrind-out-file={folder}/out",
             build / PROGRAMS[0], "--instructions"], capture_output=True,
            env={**os.environ, "LD_BIND_NOW": "1"})
        dumps = [path.read_text() for path in pathlib.Path(folder).glob("out.*")]
    counts, per_time = {}, {}
    for dump in dumps if run.returncode == 0 else []:
        name, times, per_time_text = re.search(r"Client Request: (\S+) (\S+) (\S+)", dump).groups()
        total = int(re.search(r"^totals: (\d+)", dump, re.MULTILINE)[1])
        counts.setdefault(name, {})[int(times)] = total
        per_time[name] = float(per_time_text)
    each = {name: (two[max(two)] - two[min(two)]) / (max(two) - min(two))
            for name, two in counts.items()}
    loop = each.pop("empty/0/loop", 0)
    return {f"instructions/{name}": figure([round((count - loop) / per_time[name], 1) + 0.0])
            for name, count in each.items()}


def is_immediate(build):
    """Whether the function that returns a type identifier does nothing but load a constant."""
    listing = subprocess.run(
        ["objdump", "-d", "--no-show-raw-insn", "--disassemble=courierSampleTypeID",
         build / PROGRAMS[0]], capture_output=True, text=True, check=True).stdout
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
        out = subprocess.run([*command, *options], input=source, text=True, check=True,
                             stdout=subprocess.PIPE).stdout
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

def number(of, unit):
    if unit == "ns":
        name, scale = next((n, s) for n, s in (("s", 1e9), ("ms", 1e6), ("µs", 1e3), ("ns", 0))
                           if of >= s)
        return f"{of / (scale or 1):.3g} {name}"
    digits = f"{of:,.0f}" if of >= 1000 else f"{of:.3g}"
    return f"{digits}{'' if unit == '×' else ' '}{unit}".strip()


def goals(f, row):
    """What is to be reached, each marked: ✓ reached, ≈ missed by less than a tenth, ✗ missed."""
    return [f"{'✓' if test(f, row) >= 1 else '≈' if test(f, row) >= 0.9 else '✗'} {text}"
            for text, test in row.reaches]


HEAD = ("work", "ours", "peers", "limit", "× best", "× limit", "allocs", "to reach")


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
    return [row.title, cost(row.ours.rpartition("/")[2]),
            ", ".join(f"{label(peer)} {cost(peer)}" for peer in row.peers),
            cost("limit") if limited else "", ratio(best) if best else "",
            ratio("limit") if limited else "", "" if allocated is None else
            f"{allocated:,.0f}" if allocated >= 10 else f"{allocated:.3g}",
            ", ".join(goals(f, row))]


def table(f, groups, markdown):
    lines = []
    for group, rows in groups.items():
        body = [cells(f, row) for row in rows if row.ours in f]
        if markdown:
            lines += ["", f"### {group}", "", f"| {' | '.join(HEAD)} |", "|---" * len(HEAD) + "|"]
            lines += [f"| {' | '.join(line)} |" for line in body]
            continue
        widths = [max(map(len, column)) for column in zip(HEAD, *body)]
        lines += ["", f"== {group}"]
        lines += ["  ".join(map(str.ljust, line, widths)).rstrip() for line in (HEAD, *body)]
    return "\n".join(lines)


def summary(f, groups):
    marks = [goal[0] for rows in groups.values() for row in rows if row.ours in f
             for goal in goals(f, row)]
    return (f"Of {len(marks)} goals {marks.count('✓')} are reached (✓), {marks.count('≈')} are "
            f"missed by less than a tenth (≈) and {marks.count('✗')} by more (✗).")


def every_figure(f):
    lines = ["| benchmark | median | spread | allocations |", "|---|---|---|---|"]
    for name, one in sorted(f.items()):
        if "allocations" in one:
            lines.append(f"| {name} | {number(one['value'], 'ns')} | {one['spread']:.0%} "
                         f"| {one['allocations']:.3g} |")
    return "\n".join(lines)


def pictures(f, groups, directory):
    """Writes the data of each picture and lets gnuplot draw it."""
    with tempfile.TemporaryDirectory() as folder:
        data = pathlib.Path(folder)
        bars = []
        for group, rows in groups.items():
            bars.append((1, f"— {group} —", ""))
            for row in (row for row in rows if row.ours in f and row.unit and row.peers):
                best = row.best(f)
                bars.append((row.ratio(f, best), row.title,
                             f"{row.ratio(f, best):.2g}× {label(best)}"))
        (data / "overview").write_text("".join(
            f'{i} {ratio} "{title}" "{note}"\n' for i, (ratio, title, note) in enumerate(bars)))

        def curves(name, work, whos, scale=1.0, threads=False):
            points = {}
            for one, of in f.items():
                found = re.fullmatch(rf"{work}/(\d+)/(\w+)(?:@(\d+))?", one)
                if found and bool(threads) == (found[1] == str(threads)):
                    x = int(found[3] or 1) if threads else int(found[1])
                    if threads or not found[3]:
                        points.setdefault(x, {})[found[2]] = of["value"]
            (data / name).write_text("\n".join(
                [" ".join(["x", *(f'"{label(who)}"' for who in whos)])] +
                [" ".join([str(x), *(str(points[x].get(who, "NaN")) for who in whos)])
                 for x in sorted(points)]) + "\n")

        locked = ("courier", "multi_index", "map", "flat_hash_map", "limit")
        curves("append", "append256", ("courier", "vector", "string", "cord", "limit"))
        curves("read", "read", ("courier", "ispanstream", "istringstream", "boost", "limit"))
        curves("has", "has", locked)
        curves("fan_out", "fan_out", ("courier", "shared_ptr", "deep_copy"))
        curves("threads", "has", locked, threads=4096)
        for picture in ("overview", "size", "threads"):
            subprocess.run(["gnuplot", "-e", f"data='{data}'; rows={len(bars)}",
                            HERE / f"{picture}.gp"], check=True,
                           stdout=(directory / f"{picture}.svg").open("w"))


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return (f"{cpu[1] if cpu else platform.machine()}, {os.cpu_count()} cores, "
            f"{platform.system()} {platform.release()}")


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.
                                     RawDescriptionHelpFormatter)
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
        f = {**run_benchmarks(build, options.quick), **run_cold(build, options.quick),
             **count_instructions(build),
             **is_immediate(build), **include_costs(config, options.quick)}
        run = {"quick": options.quick, "figures": f,
               "date": datetime.date.today().isoformat(), "machine": machine()}
        saved.write_text(json.dumps(run, indent=1))
    f = run["figures"]
    compiler = "g++" if config["version"].startswith("GNU") else "clang++"
    groups = all_rows(compiler)
    print(f"{run['machine']}; {config['version']}, {config['flags']}; {run['date']}")
    print(table(f, groups, markdown=False), summary(f, groups), sep="\n\n")
    if run["quick"]:
        print("A quick run, of three short repetitions: take no figure from it.")
    elif options.write:
        options.write.mkdir(parents=True, exist_ok=True)
        pictures(f, groups, options.write)
        text = (HERE / "benchmarks.md.in").read_text()
        for name, content in {
                "DATE": run["date"], "MACHINE": run["machine"], "COMPILER": config["version"],
                "FLAGS": config["flags"], "TABLE": table(f, groups, markdown=True),
                "SUMMARY": summary(f, groups), "CODE": f["immediate"]["code"],
                "EVERY_FIGURE": every_figure(f)}.items():
            text = text.replace(f"@{name}@", content)
        (options.write / "benchmarks.md").write_text(text)


if __name__ == "__main__":
    sys.exit(main())
