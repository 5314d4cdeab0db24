# SPDX-License-Identifier: Apache-2.0
"""NATS servers on the loopback interface, and the programs that use them."""

import contextlib
import itertools
import os
import pathlib
import shutil
import socket
import subprocess
import threading

PORTS = itertools.count(10000 + os.getpid() % 40 * 500)  # below those of outgoing connections
PROGRAMS = pathlib.Path("build/release/examples/nats").resolve()


def is_used(port):
    with socket.socket() as probe:
        return probe.connect_ex(("127.0.0.1", port)) == 0


def start(command, log, **options):
    """Starts a program that is killed when this thread ends, however it ends."""
    with open(log, "ab") as out:
        options |= {"stdin": subprocess.DEVNULL, "stdout": out, "stderr": out}
        command = ["setpriv", "--pdeathsig", "KILL", *map(str, command)]
        return subprocess.Popen(command, start_new_session=True, **options)


def stop(processes):
    """Terminates them, and kills those that do not end within ten seconds."""
    for process in processes:
        process.terminate()
    for process in processes:
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(10)
        process.kill()
        process.wait()


@contextlib.contextmanager
def workers(directory, arguments, count=2, programs=PROGRAMS):
    """A list of workers, each of which is started again when it ends. Logs are in the directory."""

    def launch(i):
        command = [programs / "worker", "--name", f"w{i}", *arguments]
        return start(command, directory / f"w{i}.log")

    def supervise(i):
        while running[i].wait() is not None and not ended.is_set():
            running[i] = launch(i)

    running, ended = [launch(i) for i in range(count)], threading.Event()
    threads = [threading.Thread(target=supervise, args=[i]) for i in range(count)]
    for thread in threads:
        thread.start()
    try:
        yield running
    finally:
        ended.set()
        while any(thread.is_alive() for thread in threads):
            stop(running)


class Cluster:
    """Servers with JetStream, for messages of up to 32 MiB, and a directory of their own. `extra`
    is added to the configuration of each."""

    def __init__(self, directory, size=3, extra="", jetstream="jetstream {{ {store} }}"):
        self.directory, self.extra, self.jetstream = directory.resolve(), extra, jetstream
        ports = list(itertools.islice(itertools.filterfalse(is_used, PORTS), 2 * size))
        self.ports, self.routes = ports[:size], ports[size:]
        self.url = ",".join(f"nats://127.0.0.1:{port}" for port in self.ports)

    def __enter__(self):
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        self.servers = [None] * len(self.ports)
        for i in range(len(self.ports)):
            self.start_server(i)
        return self

    def __exit__(self, *_):
        stop(self.servers)
        shutil.rmtree(self.directory / "store", ignore_errors=True)

    def start_server(self, i):
        routes = ", ".join(f"nats://127.0.0.1:{port}" for port in self.routes)
        route = f"cluster {{ name: c, listen: 127.0.0.1:{self.routes[i]}, routes: [{routes}] }}"
        settings = [
            f"server_name: s{i}, listen: 127.0.0.1:{self.ports[i]}, max_payload: 32MB",
            self.jetstream.format(store=f"store_dir: {self.directory}/store/{i}"),
            route if len(self.ports) > 1 else "",
            self.extra,
        ]
        file = self.directory / f"server-{i}.conf"
        file.write_text("\n".join(settings))
        server = shutil.which("nats-server") or "/usr/sbin/nats-server"
        self.servers[i] = start([server, "-c", file], self.directory / f"server-{i}.log")
