#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs the benchmarks of a build directory and makes one table of them.

    report.py BUILD       prints a rough one within two minutes
    report.py BUILD PAGE  writes the page
"""
import collections
import json
import math
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys
import tempfile

# What one would use instead, and what one gives up by taking it.
OTHERS = {
    "function": (
        "`unique_ptr` with a function pointer, and a size",
        "deleters that capture, growing",
    ),
    "callable": ("`unique_ptr` with a `std::function`, and a size", "growing"),
    "shared": ("`shared_ptr` and a size", "growing, a single owner"),
    "vector": ("`std::vector`", "adopting blocks"),
    "string": ("`std::string`", "adopting blocks"),
    "Cord": ("`absl::Cord`", "bytes in one piece, changing them"),
    "copies": ("a copy in a `std::vector` each", "nothing; frees the block early"),
    "aliases": ("a `shared_ptr` to the block each, and a size", "growing, a single owner"),
    "push_back": ("`std::vector::push_back`", "adopting blocks"),
    "courier push_back": ("courier's `push_back`", "nothing"),
    "calloc": ("`calloc` in a `unique_ptr`", "size, growing"),
    "span": ("a `std::span` of the buffer", "nothing"),
    "ispanstream": ("`std::ispanstream`", "owning the bytes; needs C++23"),
    "istringstream": ("`std::istringstream`", "reading in place"),
    "istreambuf_iterator": ("`istreambuf_iterator`", "sources that are no stream buffers"),
    "to_cbor vector": ("`to_cbor` into a `std::vector`", "the catalogue"),
    "to_cbor ostringstream": ("`to_cbor` into an `ostringstream`", "the catalogue"),
    "courier by pieces": ("courier, the codec on the stream itself", "nothing"),
    "SerializeToArray": ("`SerializeToArray`, a buffer of the right size", "the catalogue"),
    "SerializeToOstream": ("`SerializeToOstream`, an `ostringstream`", "the catalogue"),
    "copy": ("a copy in a `std::vector`", "the catalogue; frees the block early"),
    "alias": ("a `shared_ptr` to the block, by hand", "the catalogue, codecs that read streams"),
    "from_cbor": ("`from_cbor` of a `std::vector`", "the catalogue"),
    "shared_mutex": ("`flat_hash_map`, `shared_mutex`", "look-ups on many threads at once"),
    "absl::Mutex": ("`flat_hash_map`, `absl::Mutex`", "look-ups on many threads at once"),
    "pointers": ("the same with `unique_ptr` values", "look-ups on many threads at once"),
    "unordered_map": ("`std::unordered_map`, `shared_mutex`", "look-ups on many threads at once"),
    "no lock": ("`flat_hash_map` without a lock", "registering while others look up"),
    "closures": ("closures over a `shared_ptr`", "the catalogue, stopping, the `Sentinel`"),
    "deep copies": ("closures over deep copies", "the same, and sharing the elements"),
}

# Why an alternative is better, by the beginning of the row's text.
WHY = {
    "adopt a received": "the deleter is a `std::function`, and the buffer may grow later",
    "move a": "a move depends on the form, and passes a `std::function` on",
    "1,000": "each part is a buffer, with a deleter",
    "append pieces of 1": "take `push_back` for single bytes",
    "the same to": "no block can grow in place, and a buffer, which grows to 1.5 times the size that "
    "it needs, is copied more often than one that doubles: `reserve()` if you know the size",
    "`std::copy`": "the standard library copies a block only for iterators that it knows",
    "a `std::vector`": "as above",
    "open": "it could own a buffer, which takes longer to make",
    "encode a document": "the look-up, the payload's holder, and a copy of the bytes",
    "encode a message": "the bytes move into a buffer with a deleter",
    "decode": "the look-up, the stream and the payload",
    "`hasDeserialiserFor`, 100": "each search reads a record, which is not in the cache",
    "`has": "a lock takes as long as the search",
    "the same, on": "a lock takes as long as the search",
    "`get": "a lock takes as long as the search",
    "memory of a record": "a serialiser has three factories and two keys",
    "fan out 1 ": "the holder, its `Sentinel` and the list: for one element, use "
    "`getSerialiserFor()`",
    "fan out": "each element is looked up, and has a stop source, a text and a handle",
    "memory of a serialiser": "a stop source, a text and a handle",
}

PAGE = """<!-- Made by benchmarks/report.py: change that. -->
# Benchmarks

The library and what you would use instead, measured by `./dev bench` in one run on one machine: {cpu},
{num_cpus} cores, compiler {compiler} with `-O3` where not said otherwise, {date:.10}.

*ratio* is how many times as fast, or as small, courier is as the best alternative; if that is better, the
reason is below. *instructions* and *allocations* are courier's : that alternative's, for one operation.
*n, ±* is how often both were measured, and the distance of the quartiles divided by the median, of the
one that varied more. Do not rely on ratios between 0.8 and 1.25: compare the instructions.

| work | courier | alternatives (and what one gives up) | ratio | instructions | allocations | n, ± |
|---|---|---|---|---|---|---|
{table}

## How it was measured

Each row runs in {processes} processes of its own, which are spread over the run. In each, courier and its
alternatives take turns in random order, {repetitions} times. A figure is the median. It is the processor
time of the thread; with two threads, the time on the clock. All do the same work on the same input.

- Each process first runs a thread and frees a large block, so that reference counts are atomic and
  `malloc` keeps freed memory, as in a process that has run for a while. Only "first in a process" does
  not: there, each sample has a process of its own.
- Source and destination begin at different offsets in a page. At the same offset, loads would wait for
  stores that they do not depend on.
- Received blocks are in the cache, and their deleter only counts. Moves are those of 64 buffers.
- Encoders write to a stream that the sender keeps. Documents are arrays of small objects with texts and
  numbers; messages are lists of files.
- Look-ups use existing keys, in random order, and copy none. Each thread walks keys of its own.
- All elements of a fan-out are one object. Payloads are made before the clock starts.
"""


class Benchmarks:
    """The program and what it measured: {row: {who: [result of Google Benchmark, ...]}}."""

    def __init__(self, program):
        self.program, self.context = program, {}
        self.rows = collections.defaultdict(lambda: collections.defaultdict(list))
        for row, who in map(self.split, self.run("--benchmark_list_tests").splitlines()):
            self.rows[row][who] = []

    @staticmethod
    def split(name):
        """The row and who did its work. Google Benchmark adds "/option:value" to a name."""
        return re.sub(r"/(iterations|real_time).*", "", name).rsplit(" | ", 1)

    def run(self, *options, before=(), **more):
        command = [*before, self.program, *options]
        run = subprocess.run(command, capture_output=True, text=True, **more)
        return run.stdout if run.returncode == 0 else sys.exit(run.stderr)

    def measure(self, row, repetitions, seconds, who=""):
        """In one process: all of a row, or one of it."""
        name = re.sub(r"([^\w ])", r"[\1]", f"{row} | {who}") + ("(/|$)" if who else "")
        with tempfile.NamedTemporaryFile(suffix=".json") as out:
            options = f"enable_random_interleaving=true out={out.name} min_time={seconds} "
            options = (options + f"repetitions={repetitions}").split() + [f"filter=^{name}"]
            self.run(*(f"--benchmark_{option}" for option in options))
            report = json.load(out)
        self.context = report["context"]
        for result in report["benchmarks"]:
            if result["run_type"] == "iteration":
                self.rows[row][self.split(result["run_name"])[1]].append(result)

    def measure_all(self, processes, repetitions, seconds):
        for process in range(processes):
            for row, entries in self.rows.items():
                if row.startswith("cold"):
                    for who in [*entries] * repetitions:
                        self.measure(row, 1, seconds, who)
                elif not row.startswith("memory"):
                    self.measure(row, repetitions, seconds)
                elif process == 0:  # it is always the same
                    self.measure(row, 1, seconds)
            print(f"{process + 1} of {processes} rounds", file=sys.stderr)

    def count_instructions(self):
        """{(row, who): instructions of one operation, without those of counting}"""
        counts = {}
        with tempfile.TemporaryDirectory() as folder:
            before = "valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file="
            before = (before + f"{folder}/out").split()
            self.run("--instructions", before=before, env={**os.environ, "LD_BIND_NOW": "1"})
            for dump in pathlib.Path(folder).glob("out.*"):
                text = dump.read_text()
                if request := re.search(r"Client Request: (\S+) (\S+) (.*)", text):
                    total = int(re.search(r"^totals: (\d+)", text, re.MULTILINE)[1])
                    counts[tuple(self.split(request[3]))] = total / int(request[1]), request[2]
        counting = counts.pop(("counted | ", "nothing"))[0]
        return {key: (each - counting) / float(n) for key, (each, n) in counts.items()}


def number(of, unit=""):
    """Two digits below 10, else three, with the unit."""
    if unit == "ns":
        scales = (("s", 1e9), ("ms", 1e6), ("µs", 1e3), ("ns", 0))
        unit, scale = next(each for each in scales if of >= each[1])
        of /= scale or 1
    of = float(f"{of:.{2 if of < 10 else 3}g}")
    decimals = min(3, 1 - math.floor(math.log10(of))) if 0 < of < 10 else 0
    return f"{of:,.{decimals}f} {unit}".rstrip()


class Line:
    """A row of the table."""

    def __init__(self, row, samples, instructions):
        kind, self.work = row.split(" | ", 1)
        self.unit = "B" if kind == "memory" else "ns"

        def value(result):
            time = result["real_time" if kind == "threads" else "cpu_time"] * result["threads"]
            return result["value"] if kind == "memory" else time / result["operations"]

        self.values = {who: [value(result) for result in of] for who, of in samples.items()}
        self.median = {who: statistics.median(values) for who, values in self.values.items()}
        others = [who for who in samples if not who.startswith("courier")]
        self.best = min(others, key=self.median.get)
        self.ratio = self.median[self.best] / self.median["courier"]
        self.instructions = self.pair(lambda who: instructions.get((row, who)))
        self.allocations = self.pair(lambda who: samples[who][0].get("allocations"))

    def pair(self, count):
        """Courier's count and that of the best, if there is one."""
        counts = [count("courier"), count(self.best)]
        return "" if None in counts else " : ".join(map(number, counts))

    def spread(self, who):
        values = self.values[who] * (2 if len(self.values[who]) == 1 else 1)
        low, middle, high = statistics.quantiles(values, n=4)
        return (high - low) / middle

    def markdown(self):
        def entry(who):
            name, given_up = OTHERS[who]
            return f"**{number(self.median[who], self.unit)}** {name} ({given_up})"

        others = sorted(self.median.keys() - {"courier"}, key=self.median.get)
        why = next((f"<br>{why}" for start, why in WHY.items() if self.work.startswith(start)), "")
        varied = max(self.spread("courier"), self.spread(self.best))
        return (
            f"| {self.work} | **{number(self.median['courier'], self.unit)}** "
            f"| {'<br>'.join(map(entry, others))} "
            f"| **{number(self.ratio)}×**{why * (self.ratio < 0.95)} | {self.instructions} "
            f"| {self.allocations} | {len(self.values['courier'])}, {100 * varied:.0f} % |"
        )


def main(build, page=None):
    benchmarks = Benchmarks(pathlib.Path(build) / "benchmarks" / "courier_benchmarks")
    processes, repetitions = (4, 5) if page else (2, 3)
    benchmarks.measure_all(processes, repetitions, 0.02 if page else 0.005)
    instructions = benchmarks.count_instructions() if page else {}
    lines = [Line(row, samples, instructions) for row, samples in benchmarks.rows.items()]
    for line in lines:
        print(
            f"{line.work:55} {number(line.median['courier'], line.unit):>9} "
            f"{number(line.ratio):>7}× {number(line.median[line.best], line.unit):>9} {line.best}"
        )
    if page:
        cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
        more = {"cpu": cpu[1] if cpu else platform.machine(), **benchmarks.context}
        table = "\n".join(line.markdown() for line in lines)
        counts = {"processes": processes, "repetitions": repetitions}
        pathlib.Path(page).write_text(PAGE.format(table=table, **counts, **more))


main(*sys.argv[1:])
