# SPDX-License-Identifier: Apache-2.0
"""NATS servers on the loopback interface, and the programs that use them."""

import ctypes
import pathlib
import shutil
import signal
import socket
import subprocess
import time

NATS_SERVER = shutil.which("nats-server") or "/usr/sbin/nats-server"


def die_with_parent():
    """For child processes: they are killed when this process ends, however it ends."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def start(command, log, **options):
    with open(log, "ab") as out:
        options |= {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": out}
        options |= {"preexec_fn": die_with_parent, "start_new_session": True}
        return subprocess.Popen(command, **options)


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
    is added to the configuration of each, `store` to that of JetStream."""

    def __init__(self, directory, size=3, extra="", store="", scheme="nats://", jetstream=True):
        self.directory = pathlib.Path(directory).resolve()
        self.size, self.extra, self.scheme = size, extra, scheme
        self.jetstream = f"jetstream {{\n store_dir: '{self.directory}/store/%d'\n {store}\n}}"
        if not jetstream:
            self.jetstream = "# none: %d"

    def __enter__(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(2 * self.size)]
        self.ports = [each.getsockname()[1] for each in sockets]
        for each in sockets:
            each.close()
        self.servers = [self.start_server(i) for i in range(self.size)]
        self.url = ",".join(f"{self.scheme}127.0.0.1:{port}" for port in self.ports[: self.size])
        self.arguments = ["--url", self.url, "--replicas", str(self.size)]
        deadline = time.monotonic() + 20
        while not all(map(self.is_up, range(self.size))):
            if time.monotonic() > deadline:
                stop(self.servers)
                raise RuntimeError(f"nats-server does not start: see {self.directory}/*.log")
            time.sleep(0.05)
        return self

    def __exit__(self, *_):
        stop(self.servers)
        shutil.rmtree(self.directory / "store", ignore_errors=True)

    def restart(self, i):
        self.servers[i] = self.start_server(i)

    def start_server(self, i):
        routes = [f"nats://127.0.0.1:{port}" for port in self.ports[self.size :]]
        lines = [f"server_name: s{i}", f"listen: 127.0.0.1:{self.ports[i]}", "max_payload: 32MB"]
        lines.append(self.jetstream % i)
        if self.size > 1:
            listen = f"127.0.0.1:{self.ports[self.size + i]}"
            lines.append(f"cluster {{ name: c, listen: {listen}, routes: {routes} }}")
        file = self.directory / f"server-{i}.conf"
        file.write_text("\n".join([*lines, self.extra, ""]).replace("'", '"'))
        return start([NATS_SERVER, "-c", str(file)], self.directory / f"server-{i}.log")

    def is_up(self, i):
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.ports[i])) == 0
