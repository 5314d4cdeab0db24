# SPDX-License-Identifier: Apache-2.0
"""Compares elements of 1 KB a second, with two workers, with what the client library alone moves
through the same stream: on one server and on three."""

import pathlib
import re
import subprocess

import cluster

programs = pathlib.Path("build/release/examples/nats").resolve()
state = pathlib.Path("build/nats-measure").resolve()
state.mkdir(parents=True, exist_ok=True)
(state / "element").write_bytes(bytes(1000))


def rate(program, *arguments):
    command = [programs / program, *servers.arguments, *arguments]
    out = subprocess.check_output(command, text=True, stderr=subprocess.DEVNULL, timeout=300)
    return int(re.search(r"([\d,]+) a second", out)[1].replace(",", ""))


for size in 1, 3:
    with cluster.Cluster(state / "cluster", size) as servers:
        command = [programs / "worker", *servers.arguments]
        workers = [cluster.start(command, state / f"w{i}.log") for i in range(2)]
        ours, bare = [], []
        for _ in range(5):
            ours.append(rate("sender", "--copies", "20000", state / "element"))
            bare.append(rate("bare", "--count", "20000"))
        cluster.stop(workers)
    ours, bare = sorted(ours)[2], sorted(bare)[2]
    print(f"replicas {size}: {ours} elements a second, the client {bare}: {ours / bare:.2f}")
