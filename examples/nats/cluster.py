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
    """Child processes are terminated, even if this process is killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def start(command, log, **options):
    with open(log, "ab") as out:
        return subprocess.Popen(
            command,
            stdin=subprocess.DEVNULL,
            stdout=out,
            stderr=out,
            preexec_fn=die_with_parent,
            start_new_session=True,
            **options,
        )


def stop(processes, patience=10):
    """Terminates them, and kills those that do not end in time."""
    for process in processes:
        process.send_signal(signal.SIGTERM)
    deadline = time.monotonic() + patience
    for process in processes:
        try:
            process.wait(max(0.1, deadline - time.monotonic()))
        except subprocess.TimeoutExpired:
            process.kill()
            process.wait()


def free_ports(count):
    sockets = [socket.create_server(("127.0.0.1", 0)) for _ in range(count)]
    ports = [s.getsockname()[1] for s in sockets]
    for s in sockets:
        s.close()
    return ports


class Cluster:
    """Servers with JetStream, for messages of up to 32 MiB, and a directory of their own. `extra`
    is added to the configuration of each; `store` replaces the directory of JetStream."""

    def __init__(
        self, directory, size=3, extra="", store=None, scheme="nats", login="", jetstream=True
    ):
        self.directory = pathlib.Path(directory).resolve()
        self.store = store or self.directory / "store"
        self.size, self.extra, self.scheme, self.jetstream = (
            size,
            extra,
            f"{scheme}://{login}",
            jetstream,
        )
        self.servers = []

    def __enter__(self):
        for _ in range(3):  # another process may take a free port first
            shutil.rmtree(self.directory, ignore_errors=True)
            self.directory.mkdir(parents=True)
            self.ports = free_ports(2 * self.size)
            self.servers = [self.start_server(i) for i in range(self.size)]
            if all(self._is_up(port) for port in self.ports[: self.size]):
                urls = [f"{self.scheme}127.0.0.1:{p}" for p in self.ports[: self.size]]
                self.url = ",".join(urls)
                self.arguments = ["--url", self.url, "--replicas", str(self.size)]
                return self
            stop(self.servers)
        raise RuntimeError(f"nats-server does not start: see {self.directory}/*.log")

    def __exit__(self, *_):
        stop(self.servers)
        shutil.rmtree(self.directory / "store", ignore_errors=True)

    def restart(self, i):
        self.servers[i] = self.start_server(i)

    def start_server(self, i):
        routes = [f"nats://127.0.0.1:{port}" for port in self.ports[self.size :]]
        lines = [f"server_name: s{i}", f"listen: 127.0.0.1:{self.ports[i]}", "max_payload: 32MB"]
        if self.jetstream:
            lines.append(f'jetstream {{ store_dir: "{self.store}/{i}" }}')
        if self.size > 1:
            listen = f"127.0.0.1:{self.ports[self.size + i]}"
            lines.append(f"cluster {{ name: c, listen: {listen}, routes: {routes} }}")
        file = self.directory / f"server-{i}.conf"
        file.write_text("\n".join([*lines, self.extra, ""]).replace("'", '"'))
        return start([NATS_SERVER, "-c", str(file)], self.directory / f"server-{i}.log")

    def _is_up(self, port):
        deadline = time.monotonic() + 20
        while time.monotonic() < deadline and all(s.poll() is None for s in self.servers):
            try:
                socket.create_connection(("127.0.0.1", port), 1).close()
                return True
            except OSError:
                time.sleep(0.05)
        return False
