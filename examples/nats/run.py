# SPDX-License-Identifier: Apache-2.0
"""Runs a sender and some workers; without --url, on a cluster of three servers of its own."""

import argparse
import contextlib
import pathlib
import subprocess
import sys

import cluster


def main():
    parser = argparse.ArgumentParser(
        prog="./dev nats",
        description="Sends files as one payload, an element in each message, to some workers. "
        "Starts three servers on this machine for it, and stops them afterwards.",
        epilog="All other options and the files are passed to the sender: "
        "build/release/examples/nats/sender --help lists them. Without any, it sends "
        "90 elements of its own. To take part from another machine, run "
        "build/release/examples/nats/worker --url URL there.",
    )
    parser.add_argument("--url", help="use this cluster instead")
    parser.add_argument(
        "--workers",
        type=int,
        default=2,
        metavar="N",
        help="workers to start on this machine (default: 2)",
    )
    options, rest = parser.parse_known_args()
    programs = pathlib.Path("build/release/examples/nats").resolve()
    state = pathlib.Path("build/nats").resolve()
    state.mkdir(parents=True, exist_ok=True)

    with contextlib.ExitStack() as stack:
        url = options.url
        if not url:
            print("starting three servers", file=sys.stderr)
            url = stack.enter_context(cluster.Cluster(state / "cluster")).url
        workers = []
        stack.callback(lambda: cluster.stop(workers))
        for i in range(1, options.workers + 1):
            log = state / f"worker-{i}.log"
            log.unlink(missing_ok=True)
            workers.append(
                cluster.start([programs / "worker", "--url", url, "--name", f"worker-{i}"], log)
            )
        sender = subprocess.Popen(
            [programs / "sender", "--url", url, *(rest or ["--copies", "30"])],
            preexec_fn=cluster.die_with_parent,
        )
        while True:
            try:
                return sender.wait()
            except KeyboardInterrupt:
                pass  # the sender got it as well, and ends in its own time


if __name__ == "__main__":
    sys.exit(main())
