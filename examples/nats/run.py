# SPDX-License-Identifier: Apache-2.0
"""Runs a sender and some workers; without --url, on a cluster of three servers of its own."""

import argparse
import contextlib
import pathlib
import subprocess
import sys

import cluster

parser = argparse.ArgumentParser(
    prog="./dev nats",
    description="Sends files as one payload, an element in each message, to some workers. Starts "
    "three servers on this machine for it, and stops them afterwards.",
    epilog="All other options and the files are passed to the sender: "
    "build/release/examples/nats/sender --help lists them. Without any, it sends 150 elements of "
    "its own. To take part from another machine, run build/release/examples/nats/worker there.",
)
parser.add_argument("--url", help="use this cluster instead")
parser.add_argument("--workers", type=int, default=2, help="on this machine (default: 2)")
options, rest = parser.parse_known_args()
state = pathlib.Path("build/nats")
state.mkdir(parents=True, exist_ok=True)

with contextlib.ExitStack() as stack:
    url = options.url or stack.enter_context(cluster.Cluster(state / "cluster")).url
    stack.enter_context(cluster.workers(state, ["--url", url], options.workers))
    command = [cluster.PROGRAMS / "sender", "--url", url, *(rest or ["--copies", "30"])]
    sender = subprocess.Popen(command)
    while sender.poll() is None:
        with contextlib.suppress(KeyboardInterrupt):  # the sender got it as well
            sender.wait()
sys.exit(sender.returncode)
