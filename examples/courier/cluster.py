# SPDX-License-Identifier: Apache-2.0
"""A cluster of three NATS servers on the loopback interface, and the programs that use it."""

import ctypes
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import time

NATS_SERVER = shutil.which("nats-server") or "/usr/sbin/nats-server"

CONFIGURATION = """
server_name: {name}
listen: 127.0.0.1:{port}
jetstream {{ store_dir: "{store}" }}
cluster {{
    name: courier
    listen: 127.0.0.1:{cluster_port}
    routes: [{routes}]
}}
"""


def die_with_parent():
    """Nothing is left behind, even when this process is killed."""
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def start(command, log):
    with open(log, "ab") as out:
        return subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                preexec_fn=die_with_parent, start_new_session=True)


def stop(processes, how=signal.SIGTERM, patience=10):
    """Asks them to end, and ends those that do not."""
    for process in processes:
        if process.poll() is None:
            process.send_signal(how)
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
    """Three servers, with all they keep under a directory that is theirs alone."""

    def __init__(self, directory):
        self.directory = pathlib.Path(directory).resolve()
        self.servers = []

    def __enter__(self):
        for attempt in range(3):  # somebody else may take a free port first
            shutil.rmtree(self.directory, ignore_errors=True)
            self.directory.mkdir(parents=True)
            ports = free_ports(6)
            self.urls = [f"nats://127.0.0.1:{port}" for port in ports[:3]]
            self.servers = [self._start(i, ports) for i in range(3)]
            if self._is_up(ports[:3]):
                return self
            stop(self.servers)
        raise RuntimeError(f"nats-server does not start: see {self.directory}/*.log")

    def __exit__(self, *_):
        stop(self.servers)
        for server in range(3):
            shutil.rmtree(self.directory / f"server-{server}", ignore_errors=True)

    @property
    def url(self):
        return ",".join(self.urls)

    def restart(self, i):
        """Starts a server again that was killed."""
        self.servers[i] = start(self.commands[i], self.directory / f"server-{i}.log")

    def _start(self, i, ports):
        file = self.directory / f"server-{i}.conf"
        file.write_text(CONFIGURATION.format(
            name=f"server-{i}", port=ports[i], cluster_port=ports[3 + i],
            store=self.directory / f"server-{i}",
            routes=", ".join(f"nats://127.0.0.1:{port}" for port in ports[3:])))
        self.commands = getattr(self, "commands", {})
        self.commands[i] = [NATS_SERVER, "-c", str(file)]
        return start(self.commands[i], self.directory / f"server-{i}.log")

    def _is_up(self, ports):
        deadline = time.monotonic() + 20
        for port in ports:
            while True:
                if any(server.poll() is not None for server in self.servers):
                    return False
                try:
                    socket.create_connection(("127.0.0.1", port), 1).close()
                    break
                except OSError:
                    if time.monotonic() > deadline:
                        return False
                    time.sleep(0.05)
        return True
