# SPDX-License-Identifier: Apache-2.0
"""Compares elements of 1 KB a second, with two workers, with what the client library alone moves
through the same stream: on one server and on three."""

import pathlib
import re
import statistics
import subprocess

import cluster

state = pathlib.Path("build/nats-measure")
state.mkdir(parents=True, exist_ok=True)
(state / "element").write_bytes(bytes(1000))


def rate(program, *arguments):
    command = [cluster.PROGRAMS / program, "--copies", "20000", *arguments]
    out = subprocess.check_output(command, text=True, stderr=subprocess.DEVNULL, timeout=300)
    return int(re.search(r"([\d,]+) a second", out)[1].replace(",", ""))


for size in 1, 3:
    with cluster.Cluster(state / "cluster", size) as servers:
        common = ["--url", servers.url, "--replicas", str(size)]
        with cluster.workers(state, common):
            pairs = [
                (rate("sender", *common, state / "element"), rate("bare", *common))
                for _ in range(5)
            ]
    ours, bare = map(statistics.median, zip(*pairs))
    print(f"replicas {size}: {ours} elements a second, the client {bare}: {ours / bare:.2f}")
