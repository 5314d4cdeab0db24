# SPDX-License-Identifier: Apache-2.0
"""Compares elements of 1 KB a second, with two workers, with what the client library alone moves
through the same stream: on one server and on three."""

import pathlib
import re
import subprocess

import cluster

COUNT = 5000
ROUNDS = 3

programs = pathlib.Path("build/release/examples/nats").resolve()
state = pathlib.Path("build/nats-measure").resolve()
state.mkdir(parents=True, exist_ok=True)
element = state / "element"
element.write_bytes(bytes(1000))


def rate(command):
    out = subprocess.run(command, capture_output=True, text=True, timeout=300, check=True).stdout
    return int(re.search(r"([\d,]+) a second", out)[1].replace(",", ""))


for size in 1, 3:
    with cluster.Cluster(state / "cluster", size) as servers:
        workers = [
            cluster.start(
                [programs / "worker", *servers.arguments, "--name", f"worker-{i}"],
                state / f"worker-{i}.log",
            )
            for i in range(2)
        ]
        ours, bare = [], []
        for _ in range(ROUNDS):
            ours.append(
                rate([programs / "sender", *servers.arguments, "--copies", str(COUNT), element])
            )
            bare.append(rate([programs / "bare", *servers.arguments, "--count", str(COUNT)]))
        cluster.stop(workers)
        print(
            f"replicas {size}: {sorted(ours)[1]} elements a second, the client alone "
            f"{sorted(bare)[1]}: {sorted(ours)[1] / sorted(bare)[1]:.2f}",
            flush=True,
        )
