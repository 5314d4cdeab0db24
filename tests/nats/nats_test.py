# SPDX-License-Identifier: Apache-2.0
"""The NATS programs on servers of their own: killed workers and servers, elements that crash, hang
or take long, servers that refuse or are full. Leaves no process behind.

    python3 tests/nats/nats_test.py [-v] [TestCase[.test]]     # SEED=N: the first seed
"""

import collections
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time
import unittest
import zlib

sys.path.insert(0, "examples/nats")
import cluster

BUILD = pathlib.Path("build/release").resolve()
STATE = pathlib.Path("build/nats-test").resolve()
PROGRAMS = STATE / "programs/nats"
SEED = int(os.environ.get("SEED", "1"))
TIMEOUT = 100  # seconds for one sender


def setUpModule():
    """The programs find their modules beside them: here, those of the examples and the trap."""
    shutil.rmtree(STATE, ignore_errors=True)
    shutil.copytree(BUILD / "examples/nats", PROGRAMS)
    shutil.copytree(BUILD / "examples/modules", PROGRAMS / "../modules")
    shutil.copy(BUILD / "tests/trap.so", PROGRAMS / "../modules")


class NatsTest(unittest.TestCase):
    def setUp(self):
        self.directory = STATE / self.id().rsplit(".", 1)[1]
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        self.workers = []
        self.addCleanup(lambda: cluster.stop(self.workers))

    def serve(self, size=1, **options):
        servers = cluster.Cluster(self.directory / "servers", size, **options)
        self.enterContext(servers)
        return servers

    def log(self, i):
        return self.directory / f"worker-{i}.log"

    def start_worker(self, *arguments, place=None):
        place = len(self.workers) if place is None else place
        worker = cluster.start(
            [PROGRAMS / "worker", "--name", f"w{place}", *arguments], self.log(place)
        )
        if place == len(self.workers):
            self.workers.append(worker)
        else:
            self.workers[place] = worker

    def supervise(self, *arguments):
        """Starts two workers, and again whenever one ends."""
        stopped = threading.Event()

        def watch():
            while not stopped.wait(0.2):
                for i, worker in enumerate(self.workers):
                    if worker.poll() is not None:
                        self.start_worker(*arguments, place=i)

        for _ in range(2):
            self.start_worker(*arguments)
        thread = threading.Thread(target=watch)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(stopped.set)

    def file(self, name, content):
        path = self.directory / name
        path.write_bytes(content)
        return path

    def send(self, *arguments, **options):
        return subprocess.run(
            [PROGRAMS / "sender", *arguments],
            capture_output=True,
            text=True,
            timeout=TIMEOUT,
            **options,
        )

    def lines(self, log, kind):
        """The complete lines of a log: (run, element, size, checksum, deliveries or parts)."""
        for line in log.read_text().split("\n")[:-1] if log.exists() else ():
            word, *rest = line.split(" ")
            if word == kind:
                yield rest[0], *map(int, (rest[1], *rest[3:]))

    def decoded(self):
        return sum((list(self.lines(self.log(i), "decoded")) for i in range(len(self.workers))), [])


class Failover(NatsTest):
    """Kills a worker and a server in the middle of a run, at random moments; then interrupts a
    sender. Nothing that was sent is lost."""

    def make_files(self, chance, is_small):
        files = {}
        for i in range(100):
            if i % 4 == 3:
                value = {"i": i, "list": [chance.randrange(10**6) for _ in range(i)]}
                path = self.file(f"{i}.json", json.dumps(value, indent=4).encode())
                wire = json.dumps(value, separators=(",", ":"), sort_keys=True).encode()
            else:
                sizes = [0, 1, 1000] if is_small else [0, 1, 1000, 100_000, 2**20, 3_000_000]
                wire = chance.randbytes(chance.choice(sizes))
                path = self.file(f"{i}.blob", wire)
            files[path] = (len(wire), zlib.crc32(wire))
        return files

    def check(self, log, files, count):
        sent = list(self.lines(log, "sent"))
        self.assertTrue(count in (None, len(sent)), f"{len(sent)} of {count} sent")
        arrived = collections.Counter()
        for run, element, size, checksum, _ in self.decoded():
            if run == sent[0][0]:
                arrived[element] += 1
                self.assertEqual((size, checksum), list(files.values())[element % len(files)])
        self.assertEqual({line[1] for line in sent} - arrived.keys(), set(), "lost")
        return len(arrived), sum(arrived.values())

    def wait_until(self, condition, sender):
        deadline = time.monotonic() + TIMEOUT
        while not condition():
            self.assertIsNone(sender.poll(), "the sender ended too early")
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def finish(self, sender, status, log):
        try:
            sender.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            pass  # its status is then None
        self.assertEqual(sender.poll(), status, log.read_text()[-2000:])

    def run_seed(self, seed):
        chance = random.Random(seed)
        is_small = seed % 2 == 0
        files = self.make_files(chance, is_small)
        copies = 40 if is_small else 4
        total = copies * len(files)
        servers = self.serve(3)
        log = self.directory / "sender.log"
        command = [PROGRAMS / "sender", "--verbose", *servers.arguments, *files, "--copies"]
        sender = cluster.start([*command, str(copies)], log)
        self.addCleanup(cluster.stop, [sender])
        for _ in range(3):
            self.start_worker(*servers.arguments)
        for share, what in sorted((chance.uniform(0.1, 0.8), w) for w in ("worker", "server")):
            self.wait_until(lambda: len(self.decoded()) >= share * total, sender)
            victim = chance.randrange(3)
            (self.workers if what == "worker" else servers.servers)[victim].kill()
        self.finish(sender, 0, log)
        arrived, decoded = self.check(log, files, total)
        print(
            f"  seed {seed}: {arrived} of {total} elements arrived, {decoded - arrived} of them "
            "decoded again",
            flush=True,
        )

        log = self.directory / "interrupted.log"
        sender = cluster.start([*command, str(100 * copies)], log)
        self.addCleanup(cluster.stop, [sender])
        goal = chance.randrange(1, 200)
        self.wait_until(lambda: len(list(self.lines(log, "sent"))) >= goal, sender)
        sender.send_signal(signal.SIGINT)
        self.finish(sender, 130, log)
        self.check(log, files, None)

    def test_nothing_is_lost(self):
        for seed in range(SEED, SEED + int(os.environ.get("SEEDS", "10"))):
            with self.subTest(seed=seed):
                self.setUp()
                self.run_seed(seed)
                self.doCleanups()


class Elements(NatsTest):
    """Elements that crash their worker, hang, or take long."""

    def send_with(self, trap, *arguments):
        files = [self.file(f"{i}", b"harmless") for i in range(300)]
        files[150] = self.file("trap", trap)
        return self.send(*arguments, "-f", "trap", *files)

    def test_one_that_crashes_every_worker_is_given_up(self):
        place = [*self.serve(3).arguments, "--redeliver-after", "2"]
        self.supervise(*place)
        result = self.send_with(b"abort", *place)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("299 of 300 elements decoded", result.stdout)
        self.assertRegex(result.stderr, r"trap: given up after 5 deliveries, to (w\d, ){4}w\d\n")

    def test_one_that_hangs_is_given_up(self):
        place = [*self.serve().arguments, "--redeliver-after", "1", "--attempts", "2"]
        for _ in range(2):
            self.start_worker(*place, "--patience", "2")
        result = self.send_with(b"sleep 1000", *place)
        self.assertEqual(result.returncode, 1, result.stderr)
        self.assertIn("299 of 300 elements decoded", result.stdout)
        self.assertIn("trap: given up after 2 deliveries", result.stderr)

    def test_one_that_takes_25_seconds_is_delivered_once(self):
        place = self.serve().arguments
        for _ in range(2):
            self.start_worker(*place)
        result = self.send_with(b"sleep 25", *place)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("300 of 300 elements decoded, 0 of them delivered more", result.stdout)
        self.assertEqual(len(self.decoded()), 300)


class Strangers(NatsTest):
    """Each refusal is one line that names its cause, and nothing is sent."""

    def certify(self, name, ca=None, days="1"):
        def openssl(*arguments):
            subprocess.run(
                ["openssl", *arguments], check=True, capture_output=True, cwd=self.directory
            )

        openssl(
            "req",
            "-newkey",
            "ec",
            "-pkeyopt",
            "ec_paramgen_curve:P-256",
            "-nodes",
            "-keyout",
            f"{name}.key",
            "-out",
            f"{name}.csr",
            "-subj",
            f"/CN={name}",
        )
        self.file(
            f"{name}.ext",
            b"subjectAltName=IP:127.0.0.1" if ca else b"basicConstraints=critical,CA:TRUE",
        )
        signer = ["-CA", f"{ca}.pem", "-CAkey", f"{ca}.key"] if ca else ["-signkey", f"{name}.key"]
        openssl(
            "x509",
            "-req",
            "-in",
            f"{name}.csr",
            *signer,
            "-days",
            days,
            "-out",
            f"{name}.pem",
            "-extfile",
            f"{name}.ext",
        )
        return self.directory / f"{name}.pem"

    def refused(self, servers, why, *arguments, **environment):
        result = self.send(
            *servers.arguments, *arguments, "LICENSE", env={**os.environ, **environment}
        )
        self.assertEqual((result.returncode, result.stdout), (1, ""), result.stderr)
        self.assertRegex(result.stderr, rf"^sender: cannot connect to [^\n]*{why}[^\n]*\n$")

    def accepted(self, servers, *arguments, **environment):
        self.start_worker(
            *servers.arguments,
            *arguments,
            *(f"--{name[5:].lower()}={value}" for name, value in environment.items()),
        )
        result = self.send(
            *servers.arguments, *arguments, "LICENSE", env={**os.environ, **environment}
        )
        self.assertEqual(result.returncode, 0, result.stderr)

    def tls(self, certificate):
        return (
            f'tls {{ cert_file: "{certificate}"\n'
            f'key_file: "{certificate.with_suffix(".key")}" }}'
        )

    def test_tls_and_password(self):
        ca, other = self.certify("ca"), self.certify("other")
        password = 'authorization { user: "me", password: "secret" }'
        servers = self.serve(
            extra=self.tls(self.certify("server", "ca")) + "\n" + password, scheme="tls"
        )
        me = ["--user", "me", "--ca", str(ca)]
        self.refused(
            servers,
            "(unable to get local issuer|self-signed) certificate",
            "--user",
            "me",
            "--ca",
            str(other),
            NATS_PASSWORD="secret",
        )
        self.refused(servers, "Authorization Violation", *me, NATS_PASSWORD="wrong")
        self.accepted(servers, *me, NATS_PASSWORD="secret")

    def test_expired_certificate(self):
        ca = self.certify("ca")
        servers = self.serve(extra=self.tls(self.certify("server", "ca", "-1")), scheme="tls")
        self.refused(servers, "certificate has expired", "--ca", str(ca))

    def test_token(self):
        servers = self.serve(extra='authorization { token: "t0ken" }')
        self.refused(servers, "Authorization Violation", NATS_TOKEN="wrong")
        self.accepted(servers, NATS_TOKEN="t0ken")


class Full(NatsTest):
    def test_the_sender_waits_for_room(self):
        place = [*self.serve().arguments, "--max-bytes", "2MiB"]
        element = self.file("element", random.Random(1).randbytes(50_000))
        result = self.send(*place, "--copies", "400", "--give-up-after", "3", element)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, "no room: waiting\n(.*\n)*sender: .*no room for 3 seconds")
        for _ in range(2):
            self.start_worker(*place)
        result = self.send(*place, "--copies", "400", "--give-up-after", "30", element)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertIn("no room: waiting", result.stderr)

    def test_the_sender_waits_for_a_disk(self):
        place = self.serve(store="max_file_store: 4MB").arguments
        element = self.file("element", random.Random(1).randbytes(50_000))
        result = self.send(*place, "--copies", "400", "--give-up-after", "3", element)
        self.assertEqual(result.returncode, 1)
        self.assertRegex(result.stderr, "no room: waiting\n(.*\n)*sender: .*no room for 3 seconds")


if __name__ == "__main__":
    unittest.main()
