#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Seeds the faults of this directory's lists into a copy of the sources, one at a time, and runs
the tests on each: a fault that no test notices shows a promise that is not tested.

A fault is tried on a plain build first, and under the sanitizers if it survives there; one that
`needs` a sanitizer, under that one only. What does not compile is caught, by a static_assert. Changes
without an effect are listed as [[same]], with the reason, and are not tried.
"""

import argparse
import collections
import pathlib
import resource
import subprocess
import tomllib

PROGRAMS = ["replay_buffers", "replay_streams", "replay_catalogue", "courier_tests", "huge_tests"]
BUILDS = {
    "tests": ("clang++", "-O0 -g0"),  # the compiler that takes less time
    "asan": ("clang++", "-O1 -g0 -fsanitize=address,undefined -fno-sanitize-recover=all"),
    "tsan": ("g++", "-O1 -g0 -fsanitize=thread"),
}
NOT_UNDER_TSAN = "huge_tests"  # takes a minute there, and starts no thread
SECONDS = 120  # for one program; what takes longer hangs


class Tree:
    """A build of the copied sources."""

    def __init__(self, name, source, directory, jobs):
        self.name, self.directory, self.jobs = name, directory / name, jobs
        compiler, flags = BUILDS[name]
        self.run(
            "cmake",
            "-G",
            "Ninja",
            "-S",
            source,
            "-B",
            self.directory,
            f"-DCMAKE_CXX_COMPILER={compiler}",
            f"-DCMAKE_CXX_FLAGS={flags}",
            "-DCOURIER_BUILD_EXAMPLES=OFF",
            check=True,
        )
        self.caught = collections.defaultdict(collections.Counter)

    def run(self, *command, **arguments):
        return subprocess.run(
            command, capture_output=True, text=True, errors="replace", **arguments
        )

    def catches(self, file):
        """The program, or the compiler, that notices the present fault; None if nothing does."""
        counts = self.caught[file]
        for program in sorted(PROGRAMS, key=lambda name: -counts[name]):  # the likeliest first
            if self.name == "tsan" and program == NOT_UNDER_TSAN:
                continue
            built = self.run(
                "cmake", "--build", self.directory, "--target", program, "-j", str(self.jobs)
            )
            what = "the compiler" if built.returncode else self.fails(program)
            if what:
                counts[program] += 1
                return what
        return None

    def fails(self, program):
        folder = "fuzz" if program.startswith("replay_") else "tests"
        command = [self.directory / folder / program]
        corpus = pathlib.Path("fuzz/corpus") / program.removeprefix("replay_")
        command += ["--gtest_brief=1", "--gtest_fail_fast"] if folder == "tests" else [corpus]
        options = "allocator_may_return_null=1:halt_on_error=1"
        try:
            ran = self.run(
                *command,
                timeout=SECONDS,
                preexec_fn=self.limit,
                env={"ASAN_OPTIONS": options, "TSAN_OPTIONS": options},
            )
        except subprocess.TimeoutExpired:
            return f"{program}: hangs"
        if ran.returncode == 0:
            return None
        lines = (ran.stdout + ran.stderr).splitlines()
        says = [
            line
            for line in lines
            if "FAILED" in line or " is " in line or "SUMMARY" in line or "terminate" in line
        ]
        return f"{program}: {says[0].strip() if says else f'exit status {ran.returncode}'}"

    def limit(self):
        resource.setrlimit(resource.RLIMIT_CORE, (0, 0))
        if self.name == "tests":  # the sanitizers map terabytes
            resource.setrlimit(resource.RLIMIT_AS, (32 << 30, 32 << 30))


def read(pattern):
    faults, same = [], 0
    for path in sorted(pathlib.Path(__file__).parent.glob("*.toml")):
        lists = tomllib.loads(path.read_text())
        same += len(lists.get("same", []))
        for fault in lists.get("fault", []):
            text = pathlib.Path(fault["file"]).read_text()
            if text.count(fault["old"]) != 1:
                raise SystemExit(
                    f"{path.name}: {fault['breaks']}: `old` is in {fault['file']} "
                    f"{text.count(fault['old'])} times"
                )
            if pattern in fault["file"] + " " + fault["breaks"]:
                faults.append(fault)
    return faults, same


def main():
    parser = argparse.ArgumentParser(description="Runs the tests on seeded faults.")
    parser.add_argument("--directory", type=pathlib.Path, default=pathlib.Path("build/mutants"))
    parser.add_argument("--only", default="", help="faults whose file or text has this in it")
    parser.add_argument("--tests-only", action="store_true", help="without the sanitizers")
    parser.add_argument("--jobs", type=int, default=2)
    options = parser.parse_args()

    faults, same = read(options.only)
    source = options.directory / "source"
    for file in subprocess.check_output(["git", "ls-files"], text=True).splitlines():
        target = source / file
        bytes_ = pathlib.Path(file).read_bytes()
        if not target.exists() or target.read_bytes() != bytes_:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(bytes_)
    if options.tests_only:
        faults = [fault for fault in faults if "needs" not in fault]
    trees = [
        Tree(name, source, options.directory, options.jobs)
        for name in (["tests"] if options.tests_only else BUILDS)
    ]
    for tree in trees:
        if failure := tree.catches("none"):
            raise SystemExit(f"Without any fault, {tree.name} says {failure}")

    counts, survivors = collections.Counter(), []
    for fault in sorted(faults, key=lambda each: each["file"]):
        target = source / fault["file"]
        text = target.read_text()
        target.write_text(text.replace(fault["old"], fault["new"]))
        by = None
        try:
            needed = fault.get("needs")
            for tree in [each for each in trees if needed in (None, each.name)]:
                if by := tree.catches(fault["file"]):
                    break
        finally:
            target.write_text(text)
        counts[tree.name if by else "nothing"] += 1
        print(
            f"{tree.name if by else 'SURVIVES':8} {fault['breaks']}  [{by or fault['file']}]",
            flush=True,
        )
        if not by:
            survivors.append(fault)
    for fault in survivors:
        print(f"Nothing guards: {fault['breaks']} ({fault['file']})")
    sanitized = counts["asan"] + counts["tsan"]
    print(
        f"{len(faults)} faults: {counts['tests']} caught by the tests, {sanitized} more by "
        f"sanitizers, {counts['nothing']} by nothing; {same} that change nothing"
    )
    raise SystemExit(1 if survivors else 0)


main()
