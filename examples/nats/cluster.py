# SPDX-License-Identifier: Apache-2.0
"""NATS servers on the loopback interface, and the programs that use them."""

import itertools
import os
import pathlib
import shutil
import socket
import subprocess
import time

NATS_SERVER = shutil.which("nats-server") or "/usr/sbin/nats-server"
PORTS = itertools.count(10000 + os.getpid() % 40 * 500)  # below those of outgoing connections


def is_used(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def start(command, log, **options):
    """Starts a program that is killed when this thread ends, however it ends."""
    with open(log, "ab") as out:
        options |= {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": out}
        command = ["setpriv", "--pdeathsig", "KILL", *map(str, command)]
        return subprocess.Popen(command, start_new_session=True, **options)


def stop(processes, patience=10):
    """Terminates them, and kills those that do not end in time."""
    for process in processes:
        process.terminate()
    deadline = time.monotonic() + patience
    for process in processes:
        try:
            process.wait(max(0.1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


class Cluster:
    """Servers with JetStream, for messages of up to 32 MiB, and a directory of their own. `extra`
    is added to the configuration of each."""

    def __init__(self, directory, size=3, extra="", jetstream="", scheme="nats://"):
        self.directory = pathlib.Path(directory).resolve()
        self.size, self.extra, self.jetstream = size, extra, jetstream
        self.ports = list(itertools.islice(itertools.filterfalse(is_used, PORTS), 2 * size))
        self.url = ",".join(f"{scheme}127.0.0.1:{port}" for port in self.ports[:size])
        self.arguments = ["--url", self.url, "--replicas", str(size)]

    def __enter__(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        self.servers = [None] * self.size
        for i in range(self.size):
            self.start_server(i)
        deadline = time.monotonic() + 30
        while not all(map(is_used, self.ports[: self.size])):
            if time.monotonic() > deadline:
                stop(self.servers)
                raise RuntimeError(f"nats-server does not start: see {self.directory}/*.log")
            time.sleep(0.05)
        return self

    def __exit__(self, *_):
        stop(self.servers)
        shutil.rmtree(self.directory / "store", ignore_errors=True)

    def start_server(self, i):
        routes = [f"nats://127.0.0.1:{port}" for port in self.ports[self.size :]]
        lines = [f"server_name: s{i}", f"listen: 127.0.0.1:{self.ports[i]}", "max_payload: 32MB"]
        if self.jetstream is not None:
            lines.append(
                f"jetstream {{ store_dir: '{self.directory}/store/{i}', {self.jetstream} }}"
            )
        if self.size > 1:
            listen = f"127.0.0.1:{self.ports[self.size + i]}"
            lines.append(f"cluster {{ name: c, listen: {listen}, routes: {routes} }}")
        file = self.directory / f"server-{i}.conf"
        file.write_text("\n".join([*lines, self.extra, ""]).replace("'", '"'))
        self.servers[i] = start([NATS_SERVER, "-c", file], self.directory / f"server-{i}.log")
