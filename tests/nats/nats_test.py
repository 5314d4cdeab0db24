# SPDX-License-Identifier: Apache-2.0
"""The NATS programs on servers of their own, which fail, fill up, refuse and freeze, and beside
strangers. Leaves no process behind.

    python3 tests/nats/nats_test.py [CASE...]            # the cases, or those whose names begin so
    python3 tests/nats/nats_test.py --failover FIRST N   # N runs with killed and frozen processes
"""

import base64
import binascii
import collections
import concurrent.futures
import contextlib
import functools
import json
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import threading
import time
import traceback
import zlib

sys.path.insert(0, "examples/nats")
import cluster

BUILD = pathlib.Path("build/release").resolve()
STATE = pathlib.Path(os.environ.get("STATE", "build/nats-test")).resolve()
PROGRAMS = STATE / "programs/nats"
TYPES = {}
DISK = STATE / "disk"
LIMIT = 256 << 20  # of the memory for reading
PERMISSIONS = pathlib.Path("examples/nats/permissions.conf").read_text()
CASES = {}


class Place(contextlib.ExitStack):
    """Servers, supervised workers, senders and files of one case."""

    def __init__(self, name, size, options):
        super().__init__()
        self.directory = STATE / re.sub(r"\W+", "-", name)[:60]
        shutil.rmtree(self.directory, ignore_errors=True)
        self.directory.mkdir(parents=True)
        self.size, self.options, self.workers, self.peak = size, options, [], 0
        self.env = dict(os.environ)

    def __enter__(self):
        self.servers = self.enter_context(
            cluster.Cluster(self.directory / "servers", self.size, **self.options)
        )
        self.common = self.servers.arguments
        return self

    def start(self, program, name, arguments):
        log = self.directory / f"{name}.log"
        process = cluster.start([PROGRAMS / program, *self.common, *arguments], log, env=self.env)
        self.callback(cluster.stop, [process])
        process.log = log
        return process

    def work(self, *arguments, count=2):
        """Starts workers, and each again when it has ended."""
        stopped = threading.Event()

        def run(name):
            while not stopped.is_set():
                worker = self.start("worker", name, ["--name", name, *arguments])
                self.workers[int(name[1:])] = worker
                while worker.poll() is None and not stopped.wait(0.05):
                    with contextlib.suppress(OSError):
                        status = pathlib.Path(f"/proc/{worker.pid}/status").read_text()
                        peak = re.search(r"VmHWM:\s+(\d+) kB", status)
                        self.peak = max(self.peak, int(peak[1]) << 10 if peak else 0)

        for i in range(len(self.workers), len(self.workers) + count):
            self.workers.append(None)
            thread = threading.Thread(target=run, args=[f"w{i}"])
            thread.start()
            self.callback(thread.join)
        self.callback(stopped.set)

    def file(self, name, content):
        (self.directory / name).write_bytes(content)
        return str(self.directory / name)

    def sender(self, *arguments):
        name = f"sender-{len(list(self.directory.glob('sender-*')))}"
        return self.start("sender", name, ["--verbose", *arguments])

    def end(self, sender, status=0, says="", never=r"\x1b", within=100):
        """The sender ends in time with this status, and with these words in its output."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            sender.wait(within)
        text = sender.log.read_text(errors="replace")
        assert sender.poll() == status, f"status {sender.poll()}, not {status}: {text[-1500:]}"
        assert re.search(says, text), f"no {says!r}: {text[-1500:]}"
        assert not re.search(never, text), f"{never!r}: {text[-1500:]}"
        return text

    def send(self, *arguments, status=0, says="", within=100):
        return self.end(self.sender(*arguments), status, says, within=within)

    def wait(self, log, pattern, within=60):
        deadline = time.monotonic() + within
        while not re.search(pattern, log.read_text(errors="replace") if log.exists() else ""):
            assert time.monotonic() < deadline, f"no {pattern!r} in {log}"
            time.sleep(0.02)
        return re.search(pattern, log.read_text(errors="replace"))

    def signal(self, number, *processes):
        for process in processes:
            process.send_signal(number)

    def publish(self, user, subject, content, headers=None):
        """As a stranger would who has no client library. The server must not refuse it."""
        with socket.create_connection(("127.0.0.1", self.servers.ports[0]), 5) as server:
            head = b"" if headers is None else b"NATS/1.0\r\n" + headers + b"\r\n\r\n"
            sizes = f"{len(head)} {len(head + content)}" if head else len(content)
            command = f"{'HPUB' if head else 'PUB'} {subject} {sizes}\r\n".encode()
            login = {"verbose": False, "headers": True, "user": user, "pass": user[0]}
            server.sendall(f"CONNECT {json.dumps(login)}\r\n".encode() + command + head + content)
            server.sendall(b"\r\nPING\r\n")
            answer = b""
            while b"PONG" not in answer and b"-ERR" not in answer:
                answer += server.recv(65536) or b"-ERR closed"
            assert b"-ERR" not in answer, answer


def case(name, size=1, **options):
    def add(run):
        CASES[name] = (run, size, options)
        return run

    return add


def pressed(place, size, count, *arguments):
    element = place.file(f"{size}", random.Random(1).randbytes(size))
    sender = place.sender("--max-bytes", "2MiB", "--copies", str(count), *arguments, element)
    place.wait(sender.log, "reached its limit.*waiting")
    return sender


for size in 1, 3:

    @case(f"full stream, {size} servers: the sender waits and goes on", size)
    def _(place):
        kinds = (1000, 5000), (50_000, 200), (200_000, 50)
        senders = [pressed(place, *kind) for kind in kinds]
        place.work()
        for sender, (_, count) in zip(senders, kinds):
            place.end(sender, says=f"{count} of {count} elements decoded")


@case("full stream, filled by a killed sender")
def _(place):
    pressed(place, 50_000, 200).kill()
    sender = pressed(place, 50_000, 50)
    place.work()
    place.end(sender, says="50 of 50 elements decoded")


@case("full stream, Control-C and --give-up-after")
def _(place):
    sender = pressed(place, 50_000, 200, "-t", "4")
    place.signal(signal.SIGINT, sender)
    place.end(sender, 130, "stopped when", within=30)
    place.end(pressed(place, 50_000, 200, "--give-up-after", "3"), 1, "gave up: nothing was stored")


@case("elements that are too large, and almost")
def _(place):
    huge = place.file("huge", bytes(33 << 20))
    place.send("--stream", "other", "-f", "raw", huge, status=1, says="huge: .*max_payload.*split")
    place.common += ["--max-bytes", "12MiB"]
    place.work()
    small, large = place.file("small", b"x"), place.file("large", bytes(13 << 20))
    place.send(
        "-f", "raw", small, large, status=1, says=r"large: .*--max-bytes.*split.*(\n.*)*1 of 2"
    )
    eight = [place.file(f"{i}", random.randbytes(8_000_000)) for i in range(4)]
    both = [place.sender("-f", "raw", "-t", "4", *eight) for _ in range(2)]
    for sender in both:
        place.end(sender, says="4 of 4 elements decoded")


@case("a disk of 60 MB", store=DISK)
def _(place):
    element = place.file("element", random.Random(1).randbytes(50_000))
    place.send(element, status=1, says="cannot reserve 2147483648 bytes.*--max-bytes", within=10)
    place.work()
    common, place.common = place.common, [*place.common, "--max-bytes", "10MiB"]
    place.send("--copies", "1000", element, says="1000 of 1000")
    disk = place.servers.store / "ballast"
    with contextlib.suppress(OSError), disk.open("wb", buffering=0) as ballast:
        while True:
            ballast.write(bytes(1 << 16))
    sender = place.sender("--copies", "400", element)
    place.wait(sender.log, "waiting")
    disk.unlink()
    place.signal(signal.SIGTERM, place.servers.servers[0])  # a full disk disables JetStream
    place.servers.servers[0].wait()
    place.servers.restart(0)
    place.end(sender, says="400 of 400")


for away, seconds in ((0, 1, 2), 10), ((0, 1, 2), 75), ((0, 1), 20):

    @case(f"{len(away)} of 3 servers killed for {seconds} s", 3)
    def _(place, away=away, seconds=seconds):
        place.work()
        element = place.file("element", random.Random(1).randbytes(10_000))
        sender = place.sender("--copies", "20000", element)
        place.wait(sender.log, r"\n(sent .*\n){100}")
        place.signal(signal.SIGKILL, *(place.servers.servers[i] for i in away))
        time.sleep(seconds)
        for i in away:
            place.servers.restart(i)
        place.end(sender, says="20000 of 20000")
        assert place.workers[0].log.read_text().count("ready") == 1


@case("a long decode, then a server that is away")
def _(place):
    place.work("--redeliver-after", "3")
    sender = place.sender("-f", "trap", place.file("trap", b"sleep 12"))
    time.sleep(11)
    place.servers.servers[0].kill()
    time.sleep(3)
    place.servers.restart(0)
    place.end(sender, says="1 of 1 elements? decoded, 0 of them")


@case("the sender's server is frozen for good", 3)
def _(place):
    place.work()
    element = place.file("element", random.Random(1).randbytes(100_000))
    sender = place.sender("--copies", "4000", element)
    place.wait(sender.log, r"\n(sent .*\n){100}")
    ports = {f"{port:04X}": i for i, port in enumerate(place.servers.ports[:3])}
    sockets = [os.readlink(f) for f in pathlib.Path(f"/proc/{sender.pid}/fd").iterdir()]
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines():
        _, _, remote, _, _, _, _, _, _, inode, *_ = *line.split(), *12 * [""]
        if f"socket:[{inode}]" in sockets and remote[-4:] in ports:
            place.servers.servers[ports[remote[-4:]]].send_signal(signal.SIGSTOP)
    place.end(sender, says="4000 of 4000")


@case("elements that end their decoder", 3)
def _(place):
    place.work("--redeliver-after", "2", "--patience", "4")
    files = [place.file(f"{i}", b"harmless") for i in range(300)]
    for i, word in enumerate(["abort", "exit", "sleep 1000"]):
        files[100 * i] = place.file(word, word.encode())
    sender = place.sender("-f", "trap", *files)
    time.sleep(3)
    place.servers.servers[0].kill()  # perhaps a leader, while workers report
    text = place.end(sender, 1, "297 of 300 elements decoded")
    for why in "abort: .*with signal 6", "exit: .*ended the process", "1000: .*longer than 4 s":
        assert re.search(why, text), f"no {why!r}: {text[-1500:]}"


@case("200 messages of strangers beside an honest run", extra=PERMISSIONS)
def _(place):
    place.env["NATS_PASSWORD"] = "w"
    place.work("--user", "worker", count=1)
    place.wait(place.directory / "w0.log", "ready")
    place.env["NATS_PASSWORD"] = "s"
    element = place.file("element", bytes(range(256)) * 40)
    honest = ["--user", "sender", "-f", "raw", "--copies", "3000"]
    zeros = b"\x28\xb5\x2f\xfd\x00\x50" + 9999 * b"\x02\x00\x10\x00" + b"\x03\x00\x10\x00"
    elements = [  # that are well-formed: type, wire format, bytes
        ("Document", "ubjson", b"[$Z#l\x7f\xff\xff\xff"),
        ("Document", "ubjson", b"[$Z#L\x7f" + 7 * b"\xff"),
        ("Document", "msgpack", b"\xdd\xff\xff\xff\xff" + bytes(9)),
        ("Document", "cbor", b"\x9f" + 4_000_000 * b"\x80"),
        ("Document", "cbor", b"\x9f" + 900_000 * b"\xa1\x60\x80"),
        ("Document", "cbor", 100_000 * b"\x81"),
        ("Document", "json", 100_000 * b'{"":'),
        ("Document", "json", b"[" + b'"\\u0000",' * 1_000_000),
        ("Document", "json", b'"' + 8_000_000 * b"x"),
        ("Blob", "zstd", zeros),
        ("Blob", "zstd", zeros.replace(b"\x50", b"\x88", 1)),
        ("Blob", "deflate", zlib.compress(bytes(2 * LIMIT))),
        ("Blob", "none\x1b[31m", b"x"),
        ("Histogram", "cereal", b"\x01" + 16 * b"\x7f"),
        ("Listing", "protobuf", 4_000_000 * b"\x12\x00"),
    ]
    labels = [b"", b"x", b"[1,2,3]", b'["raw",-1]', b'{"a":1}', b"[" * 3000, b"\x1b[31m\x00"]
    malformed = [b"A", b"A: \x1b[31m\x00", b" : ", *(b"Courier-Label: " + x for x in labels)]
    true, reports = [0, 10240, 1, 1, 1, ""], []
    for place_, lie in enumerate(
        [[-1, 3000, 2**64, 0.5, [[]]], [1], ["x"], [0, None], [-1, 2**62]]
    ):
        reports += [[*true[:place_], value, *true[place_ + 1 : 5], "\x1b[31m"] for value in lie]
    reports = [json.dumps([report]).encode() for report in [true, *reports]]
    reports += [b"", b"\xff\xfe", b"0", b"[0]", b"[" * 1_000_000, bytes(2 << 20)]
    for i in range(200):
        if i == 45:  # behind the first of each kind
            sender = place.sender(*honest, element)
            run = place.wait(sender.log, r"sent (\w+) ")[1]
        user, subject, content, headers = "sender", f"elements.{i:016x}.{i}", b"", None
        if i % 3 == 0:
            name, wire_format, content = elements[i // 3 % len(elements)]
            label = json.dumps([wire_format, TYPES[name], zlib.crc32(content)])
            headers = b"Courier-Label: " + label.encode()
        elif i % 3 == 1:
            subjects = [subject, f"elements.{i}.1", f"elements.{i:016x}.x", "elements.\x1b[31m.1"]
            subject, headers = subjects[i // 3 % 4], malformed[i // 3 % len(malformed)]
        elif i > 45:
            user, content = "worker", reports[i // 3 % len(reports)]
            subject = f"elements-reports.{run}.{['w0', 'x', chr(27)][i // 3 % 3]}"
        place.publish(user, subject, content, headers)
    text = place.end(sender, says="3000 of 3000 elements decoded, 0 of them")
    assert re.search(r"worker .*\nw0 +3,000 +[\d,]+ .*\nall", text), text[-1500:]
    place.wait(place.workers[0].log, "ignored, message 67:", within=200)
    assert place.peak < LIMIT * 3 // 2 + (32 << 20), f"{place.peak >> 20} MiB"
    assert "\x1b" not in place.workers[0].log.read_text(errors="replace")


def openssl(directory, command, *arguments):
    return subprocess.run(
        ["openssl", *command.split(), *arguments], cwd=directory, check=True, capture_output=True
    ).stdout


def certify(directory, name, ca=None, days=1):
    """The lines of a server's configuration for a new certificate."""
    name_of_key = f"ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout {name}.key -subj /CN={name}"
    openssl(directory, f"req -newkey {name_of_key} -out {name}.csr")
    extension = "subjectAltName=IP:127.0.0.1" if ca else "basicConstraints=critical,CA:TRUE"
    (directory / f"{name}.ext").write_text(extension)
    signer = f"-CA {ca}.pem -CAkey {ca}.key" if ca else f"-signkey {name}.key"
    command = f"x509 -req -in {name}.csr {signer} -days {days} -out {name}.pem -extfile {name}.ext"
    openssl(directory, command)
    return f"tls {{ cert_file: '{directory}/{name}.pem', key_file: '{directory}/{name}.key'"


class Nkey:
    """An Ed25519 key of NATS: `kind` is the first letter of its public form."""

    def __init__(self, directory, kind):
        self.directory, self.seed = directory, os.urandom(32)
        self.file = directory / f"{kind}-{self.seed.hex()}"
        self.file.write_bytes(bytes.fromhex("302e020100300506032b657004220420") + self.seed)
        public = openssl(directory, "pkey -pubout -inform DER -outform DER -in", self.file)[-32:]
        prefix = "ABCDEFGHIJKLMNOPQRSTUVWXYZ".index(kind) << 3
        self.public = self.encode(bytes([prefix]) + public)
        self.secret = self.encode(bytes([144 | prefix >> 5, (prefix & 31) << 3]) + self.seed)

    @staticmethod
    def encode(data):
        checked = data + binascii.crc_hqx(data, 0).to_bytes(2, "little")
        return base64.b32encode(checked).decode().rstrip("=")

    def sign(self, subject, kind, expires=None, **claims):
        claims = {"type": kind, "version": 2, **claims}
        body = {"iss": self.public, "sub": subject.public, "iat": 0, "jti": "x", "nats": claims}
        body |= {"exp": expires} if expires else {}
        parts = [{"typ": "JWT", "alg": "ed25519-nkey"}, body]
        code = lambda data: base64.urlsafe_b64encode(data).rstrip(b"=")
        text = b".".join(code(json.dumps(part).encode()) for part in parts)
        (self.directory / "text").write_bytes(text)
        sign = "pkeyutl -sign -rawin -keyform DER -in text -inkey"
        return (text + b"." + code(openssl(self.directory, sign, self.file))).decode()


def credentials(place):
    """The configuration of a server, and files of credentials for it."""
    operator, account, system, user, other = (Nkey(place.directory, kind) for kind in "OAAUU")
    unlimited = dict.fromkeys(["subs", "data", "payload", "conn", "imports", "exports"], -1)
    store = dict.fromkeys(["mem_storage", "disk_storage", "streams", "consumer"], -1)
    limits = {**unlimited, **store, "wildcards": True}
    accounts = [
        f"{account.public}: {operator.sign(account, 'account', limits=limits)}",
        f"{system.public}: {operator.sign(system, 'account', limits=unlimited)}",
    ]
    files = {}
    for name, seed, expires in (
        ("good", user, 2**33),
        ("wrong", other, 2**33),
        ("expired", user, 1),
    ):
        jwt = account.sign(user, "user", expires, subs=-1, data=-1, payload=-1)
        kinds = ("NATS USER JWT", jwt), ("USER NKEY SEED", seed.secret)
        text = [f"-----BEGIN {kind}-----\n{data}\n------END {kind}------\n" for kind, data in kinds]
        files[name] = place.file(name, "\n".join(text).encode())
    files["junk"] = place.file("junk", os.urandom(1000))
    return files, "\n".join(
        [
            f"operator: {operator.sign(operator, 'operator')}",
            f"system_account: {system.public}",
            "resolver: MEMORY",
            "resolver_preload: {",
            *accounts,
            "}",
        ]
    )


@case("what the servers refuse, or have not, is said at once")
def _(place):
    def attempt(status, says, *arguments, **options):
        with cluster.Cluster(place.directory / "other", 1, **options) as servers:
            place.common = [*servers.arguments, *arguments]
            worker = place.start("worker", "worker", [])
            text = place.send("LICENSE", status=status, says=says, within=20)
            cluster.stop([worker])
            assert "secret" not in text + worker.log.read_text(), text

    place.env |= {"NATS_PASSWORD": "secret", "NATS_TOKEN": "secret"}
    directory = place.directory
    certify(directory, "ca"), certify(directory, "other")
    server, expired = certify(directory, "server", "ca"), certify(directory, "expired", "ca", -1)
    mutual = f"{server}, ca_file: '{directory}/ca.pem', verify: true }}"
    trusted, me = ["--ca", f"{directory}/ca.pem"], ["--user=me"]
    login = "authorization {{ users: [{{ user: me, password: secret, permissions: {{ {} }} }}] }}"
    denied = login.format("publish: { deny: 'elements.>' }")
    files, keys = credentials(place)
    for status, says, arguments, options in (
        (1, "no JetStream", [], {"jetstream": False}),
        (1, 'refuse.* Publish to "elements', me, {"extra": denied}),
        (1, "Authorization Violation", [], {"login": "me:secrets@", "extra": login.format("")}),
        (
            1,
            "Authorization Violation",
            [],
            {"extra": "authorization { token: a }"},
        ),
        (0, "1 of 1", [], {"extra": "authorization { token: secret }"}),
        (1, "client certificate", trusted, {"scheme": "tls", "extra": mutual}),
        (1, "has expired", trusted, {"scheme": "tls", "extra": expired + "}"}),
        (
            1,
            "certificate",
            ["--ca", f"{directory}/other.pem"],
            {"scheme": "tls", "extra": server + "}"},
        ),
        (0, "1 of 1", trusted, {"scheme": "tls", "extra": server + "}"}),
        (0, "1 of 1", ["--credentials", files["good"]], {"extra": keys}),
        (1, "Authorization Violation", ["--credentials", files["expired"]], {"extra": keys}),
        (1, "Authorization Violation", ["--credentials", files["wrong"]], {"extra": keys}),
        (1, "no nkey user seed", ["--credentials", files["junk"]], {"extra": keys}),
    ):
        attempt(status, says, *arguments, **options)


def failover(place, seed):
    """Kills or freezes a worker and a server at random moments, then interrupts a sender. Nothing
    that was sent is lost or changed."""
    chance = random.Random(seed)
    sizes = [0, 1, 1000] if seed % 2 else [0, 1, 1000, 100_000, 2**20, 3_000_000]
    files, sums = [], []
    for i in range(100):
        content = chance.randbytes(chance.choice(sizes))
        if i % 4 == 3:
            value = {"i": i, "list": [chance.randrange(10**6) for _ in range(i)]}
            content = json.dumps(value, separators=(",", ":"), sort_keys=True).encode()
        files.append(place.file(f"{i}.json" if i % 4 == 3 else f"{i}.blob", content))
        sums.append((str(len(content)), str(zlib.crc32(content))))
    copies = 40 if seed % 2 else 4
    place.work(count=3)

    def decoded():
        logs = [place.directory / f"w{i}.log" for i in range(3)]
        text = "".join(log.read_text() for log in logs if log.exists())
        return re.findall(r"(?m)^decoded (\w+) (\d+) \S+ (\d+) (\d+) \d+$", text)

    def check(sender):
        sent = re.findall(r"(?m)^sent (\w+) (\d+) ", sender.log.read_text())
        arrived = collections.Counter()
        for run, i, *sums_ in decoded():
            if run == sent[0][0]:
                arrived[i] += 1
                assert tuple(sums_) == sums[int(i) % 100], f"element {i} is wrong"
        lost = {i for _, i in sent} - arrived.keys()
        assert not lost, f"lost: {lost}"
        return f"{len(arrived)} of {len(sent)} elements arrived, {arrived.total()} decodes"

    sender = place.sender("--copies", str(copies), *files)
    events, timers = [], []
    victims = chance.sample(["worker", "server"], 2)
    for what, share in zip(victims, sorted(chance.uniform(0.05, 0.7) for _ in victims)):
        while len(decoded()) < share * copies * 100 and sender.poll() is None:
            time.sleep(0.1)
        victim = chance.choice(place.workers if what == "worker" else place.servers.servers)
        number = chance.choice([signal.SIGKILL, signal.SIGSTOP])
        victim.send_signal(number)
        if number == signal.SIGSTOP:
            timers.append(threading.Timer(15, victim.send_signal, [signal.SIGCONT]))
            timers[-1].start()
        events.append(f"{what} {number.name}")
    try:
        place.end(sender, says=f"{100 * copies} of {100 * copies} elements decoded")
        result = check(sender)
        sender = place.sender("--copies", str(100 * copies), *files)
        place.wait(sender.log, r"(?s)(\nsent .*?){%d}" % chance.randrange(1, 200))
        sender.send_signal(signal.SIGINT)
        place.end(sender, 130)
        check(sender)
    finally:
        for timer in timers:
            timer.join()
    return f"{', '.join(events)}: {result}"


def run(name, function, size, options):
    start, result = time.monotonic(), ""
    try:
        with Place(name, size, options) as place:
            result = function(place)
        status = "passed"
    except Exception:
        status, result = "FAILED", traceback.format_exc()
    print(f"{status} {time.monotonic() - start:4.0f} s  {name}  {result or ''}", flush=True)
    return status == "passed"


def main(arguments):
    subprocess.run(["umount", DISK], stderr=subprocess.DEVNULL)
    shutil.rmtree(STATE, ignore_errors=True)
    shutil.copytree(BUILD / "examples/nats", PROGRAMS)
    shutil.copytree(BUILD / "examples/modules", PROGRAMS / "../modules")
    shutil.copy(BUILD / "tests/trap.so", PROGRAMS / "../modules")
    DISK.mkdir(parents=True)
    subprocess.run(["mount", "-t", "tmpfs", "-o", "size=60m", "tmpfs", DISK], check=True)
    listed = subprocess.check_output([BUILD / "examples/roundtrip/roundtrip", "--list"], text=True)
    TYPES.update({name: int(i, 16) for name, i in re.findall(r"(\w+) +(0x\w{16})", listed)})
    os.environ.update(SENDER_PASSWORD="s", WORKER_PASSWORD="w", STRANGER_PASSWORD="x")
    if arguments[:1] == ["--failover"]:
        first, count = map(int, arguments[1:])
        work = [
            (f"seed {seed}", functools.partial(failover, seed=seed), 3, {})
            for seed in range(first, first + count)
        ]
    else:
        names = [n for n in CASES if n.startswith(tuple(arguments or [""]))]
        work = [(name, *CASES[name]) for name in names]
    with concurrent.futures.ThreadPoolExecutor(int(os.environ.get("JOBS", "3"))) as pool:
        results = list(pool.map(lambda each: run(*each), work))
    subprocess.run(["umount", DISK], check=True)
    print(f"{sum(results)} of {len(results)} passed")
    return not all(results)


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
