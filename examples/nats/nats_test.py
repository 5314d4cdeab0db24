# SPDX-License-Identifier: Apache-2.0
"""Kills a worker and a server in the middle of a run, at random moments, and counts what arrived.

Then interrupts a sender, and looks whether what it had sent arrived. Ends by itself, and leaves no
process behind.
"""

import argparse
import collections
import json
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import time
import zlib

import cluster

TIMEOUT = 100  # seconds for one sender; it takes a few, and about twenty more where servers change
COPIES = 4


def make_files(directory, chance):
    """Blobs, some of which do not fit into one message, and documents; with the checksum that each
    must have in the wire formats raw and json."""
    directory.mkdir(parents=True)
    files = {}
    for i in range(100):
        if i % 4 == 3:
            value = {"i": i, "list": [chance.randrange(10**6) for _ in range(chance.randrange(500))]}
            file = directory / f"{i}.json"
            file.write_text(json.dumps(value, indent=4))
            wire = json.dumps(value, separators=(",", ":"), sort_keys=True).encode()
        else:
            size = chance.choice([0, 1, 1000, 100_000, 2**20, 3_000_000])
            file = directory / f"{i}.blob"
            wire = chance.randbytes(size)
            file.write_bytes(wire)
        files[str(file)] = (len(wire), zlib.crc32(wire))
    return files


class Test:
    def __init__(self, programs, state, url, files):
        self.programs, self.state, self.url, self.files = programs, state, url, files
        self.workers = []

    def start_worker(self):
        log = self.state / f"worker-{len(self.workers)}.log"
        self.workers.append(cluster.start(
            [self.programs / "worker", "--url", self.url, "--name", f"worker-{len(self.workers)}"],
            log))

    def start_sender(self, name, copies):
        self.log = self.state / f"{name}.log"
        return cluster.start([self.programs / "sender", "--verbose", "--copies", str(copies),
                              "--url", self.url, *self.files], self.log)

    @staticmethod
    def lines(log, kind):
        """The complete lines of a log: (run, element, size, checksum)."""
        for line in log.read_text().split("\n")[:-1] if log.exists() else ():
            word, *rest = line.split(" ")
            if word == kind:
                yield rest[0], int(rest[1]), int(rest[3]), int(rest[4])

    def sent(self):
        return list(self.lines(self.log, "sent"))

    def decoded(self, run=None):
        """What each worker decoded of a run."""
        return [[line for line in self.lines(self.state / f"worker-{i}.log", "decoded")
                 if run in (None, line[0])] for i in range(len(self.workers))]

    def check(self, count):
        """That all that was sent was decoded, and is what was in the files."""
        expected = list(self.files.values())
        sent = self.sent()
        assert len(sent) == len({line[1] for line in sent}) > 0, "sent twice"
        assert count is None or len(sent) == count, f"{len(sent)} of {count} sent"
        run = sent[0][0]
        arrived = collections.Counter()
        for _, element, size, checksum in sum(self.decoded(run), []):
            arrived[element] += 1
            assert (size, checksum) == expected[element % len(expected)], f"element {element}"
        lost = {line[1] for line in sent} - arrived.keys()
        assert not lost, f"lost: {sorted(lost)}"
        return arrived


def wait_until(condition, sender, what):
    deadline = time.monotonic() + TIMEOUT
    while not condition():
        assert sender.poll() is None, f"the sender ended before {what}"
        assert time.monotonic() < deadline, f"no {what}"
        time.sleep(0.01)


def failover(test, servers, chance):
    total = COPIES * len(test.files)
    head_start = chance.choice([0, 0.5])  # with some elements waiting, no worker is ever idle
    kills = [(chance.uniform(0.1, 0.8), what) for what in ("worker", "server")]
    sender = test.start_sender("sender", COPIES)
    try:
        wait_until(lambda: len(test.sent()) >= head_start * total, sender, "head start")
        for _ in range(3):
            test.start_worker()
        for share, what in sorted(kills):
            wait_until(lambda: sum(map(len, test.decoded())) >= share * total, sender, "progress")
            time.sleep(chance.uniform(0, 0.05))  # anywhere between two lines
            victim = chance.randrange(3)
            done = sum(map(len, test.decoded()))
            (test.workers if what == "worker" else servers.servers)[victim].kill()
            print(f"  killed {what} {victim} when {done} of {total} elements had been decoded",
                  flush=True)
        try:
            status = sender.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            test.check(total)  # says what it waits for
            raise
    finally:
        cluster.stop([sender])
    text = test.log.read_text()
    assert status == 0, f"the sender ended with {status}:\n{text[-2000:]}"
    assert "given back" in text
    arrived = test.check(total)
    again = re.search(r"(\d+) of them delivered more than once", text)[1]
    print(f"  {len(arrived)} of {total} elements arrived; {again} were delivered more than once, "
          f"{sum(arrived.values()) - total} decoded more than once; by worker: "
          + ", ".join(str(len(lines)) for lines in test.decoded()), flush=True)
    return total


def interruption(test, chance):
    test.start_worker()
    before = sum(map(len, test.decoded()))
    sender = test.start_sender("interrupted", 100)
    try:
        enough = chance.randrange(1, 200)
        wait_until(lambda: sum(map(len, test.decoded())) >= before + enough, sender, "progress")
        sender.send_signal(signal.SIGINT)
        status = sender.wait(TIMEOUT)
    finally:
        cluster.stop([sender])
    text = test.log.read_text()
    assert status == 130 and "all of these were decoded" in text, f"{status}:\n{text[-2000:]}"
    assert "given back" in text
    arrived = test.check(None)
    print(f"  interrupted when {len(arrived)} of {100 * len(test.files)} elements had been sent; "
          "all of these arrived", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--programs", default="build/release/examples/courier")
    parser.add_argument("--state", default="build/courier-test")
    parser.add_argument("--runs", type=int, default=1)
    parser.add_argument("--seed", type=int, default=random.randrange(2**32))
    options = parser.parse_args()
    programs = pathlib.Path(options.programs).resolve()
    state = pathlib.Path(options.state).resolve()
    total = 0
    for run in range(options.runs):
        seed = options.seed + run
        print(f"run {run + 1}, --seed {seed}", flush=True)
        chance = random.Random(seed)
        shutil.rmtree(state, ignore_errors=True)
        files = make_files(state / "files", chance)
        with cluster.Cluster(state / "cluster") as servers:
            test = Test(programs, state, servers.url, files)
            try:
                total += failover(test, servers, chance)
                interruption(test, chance)
            finally:
                cluster.stop(test.workers)
    print(f"{options.runs} runs, {total} elements, 0 lost")


if __name__ == "__main__":
    sys.exit(main())
