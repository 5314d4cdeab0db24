# SPDX-License-Identifier: Apache-2.0
"""The NATS programs on servers of their own, which fail, fill up, refuse and freeze, and beside
strangers. Leaves no process behind.

    python3 tests/nats/nats_test.py [CASE...]            # the cases, or those whose names begin so
    python3 tests/nats/nats_test.py --failover FIRST N   # N runs with killed and frozen processes
"""

import base64
import binascii
import contextlib
import functools
import itertools
import json
import os
import pathlib
import random
import re
import resource
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

STATE = pathlib.Path(os.environ.get("STATE", "build/nats-test")).resolve()
PROGRAMS = STATE / "programs/nats"
LIMIT = 256 << 20  # of the memory for reading
CASES = {}


class Place(contextlib.ExitStack):
    """Servers, supervised workers, senders and files of one case."""

    def __init__(self, name, size, options):
        super().__init__()
        self.directory = STATE / re.sub(r"\W+", "-", name)[:60]
        self.directory.mkdir()
        self.cluster = cluster.Cluster(self.directory / "servers", size, **options)
        self.servers = self.enter_context(self.cluster).servers
        self.common, self.env = self.cluster.arguments, dict(os.environ)
        self.workers, self.peak, self.number = [], 0, itertools.count()

    def start(self, program, name, *arguments):
        log = self.directory / f"{name}.log"
        process = cluster.start([PROGRAMS / program, *self.common, *arguments], log, env=self.env)
        process.log = log
        return process

    def work(self, *arguments, count=2):
        """Starts workers, and each again when it has ended. Notes the most memory of one."""
        stopped = threading.Event()

        def run(i):
            while not stopped.is_set():
                worker = self.workers[i] = self.start(
                    "worker", f"w{i}", "--name", f"w{i}", *arguments
                )
                while worker.poll() is None and not stopped.wait(0.05):
                    with contextlib.suppress(OSError, TypeError):
                        status = pathlib.Path(f"/proc/{worker.pid}/status").read_text()
                        peak = int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) << 10
                        self.peak = max(self.peak, peak)
            cluster.stop([worker])

        self.workers = [None] * count
        for i in range(count):
            thread = threading.Thread(target=run, args=[i])
            thread.start()
            self.callback(thread.join)
        self.callback(stopped.set)

    def file(self, name, content):
        (self.directory / name).write_bytes(content)
        return str(self.directory / name)

    def noise(self, size, seed=1):
        return self.file(f"{size}-{seed}", random.Random(seed).randbytes(size))

    def sender(self, *arguments):
        sender = self.start("sender", f"sender-{next(self.number)}", "--verbose", *arguments)
        self.callback(cluster.stop, [sender])
        return sender

    def end(self, sender, status=0, says="", within=150):
        """The sender ends in time with this status, and with these words in its output."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            sender.wait(within)
        text = sender.log.read_text(errors="replace")
        assert sender.poll() == status, f"status {sender.poll()}, not {status}: {text[-1500:]}"
        assert re.search(says, text) and "\x1b" not in text, f"no {says!r}: {text[-1500:]}"
        return text

    def send(self, *arguments, status=0, says=""):
        return self.end(self.sender(*arguments), status, says)

    def wait(self, process, pattern, within=60):
        deadline = time.monotonic() + within
        while not re.search(pattern, process.log.read_text(errors="replace")):
            assert time.monotonic() < deadline, f"no {pattern!r} in {process.log}"
            time.sleep(0.02)
        return re.search(pattern, process.log.read_text(errors="replace"))

    def pressed(self, size, count, *arguments):
        """A sender of more than it may put into the stream, when it waits."""
        arguments = "--max-bytes", "2MiB", "--copies", str(count), *arguments, self.noise(size)
        sender = self.sender(*arguments)
        self.wait(sender, "(reached its limit|no worker has reported).*waiting")
        return sender

    def away(self, seconds, *which):
        for i in which:
            self.servers[i].kill()
        time.sleep(seconds)
        for i in which:
            self.cluster.restart(i)

    def publish(self, user, subject, content, headers=None):
        """As a stranger would who has no client library. The server must not refuse it."""
        with socket.create_connection(("127.0.0.1", self.cluster.ports[0]), 5) as server:
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
    return lambda run: CASES.update({name: (run, size, options)})


for servers in 1, 3:

    @case(f"full stream, {servers} servers: the sender waits and goes on", servers)
    def _(place):
        kinds = (1000, 5000), (50_000, 200), (200_000, 50)
        senders = [place.pressed(*kind) for kind in kinds]
        place.work()
        for sender, (_, count) in zip(senders, kinds):
            place.end(sender, says=f"{count} of {count} elements decoded")


@case("full stream, filled by a killed sender; Control-C and --give-up-after")
def _(place):
    arguments = "--max-bytes", "2MiB", "--copies", "200", place.noise(50_000)
    for killed in [place.sender(*arguments) for _ in range(12)]:  # together, more than its limit
        place.wait(killed, "waiting")
        killed.kill()
    stopped = place.pressed(50_000, 200, "-t", "4")
    place.wait(stopped, "reached its limit")
    stopped.send_signal(signal.SIGINT)
    place.end(stopped, 130, "stopped when")
    place.end(place.pressed(50_000, 200, "--give-up-after", "3"), 1, "gave up: nothing was stored")
    sender = place.pressed(50_000, 50)
    place.work()
    place.end(sender, says="50 of 50 elements decoded")


@case("elements that are too large, and almost")
def _(place):
    huge, large = place.file("huge", bytes(33 << 20)), place.file("large", bytes(13 << 20))
    place.send("--stream", "other", "-f", "raw", huge, status=1, says="huge: .*max_payload.*split")
    place.common += ["--max-bytes", "12MiB"]
    place.work()
    place.send("-f", "raw", large, status=1, says="large: .*--max-bytes.*split")
    eight = [place.noise(8_000_000, i) for i in range(4)]
    both = [place.sender("-f", "raw", "-t", "4", *eight) for _ in range(2)]
    for sender in both:
        place.end(sender, says="4 of 4 elements decoded")


@case("a disk of 60 MB, by the server's limit, and a full one", store="max_file_store: 60MB")
def _(place):
    element, server = place.noise(50_000), place.servers[0]
    place.send(element, status=1, says="cannot reserve 2147483648 bytes.*--max-bytes")
    place.work()
    place.common += ["--max-bytes", "10MiB"]
    place.send("--copies", "1000", element, says="1000 of 1000")
    # No file may grow: what the server writes fails, as on a full disk.
    resource.prlimit(server.pid, resource.RLIMIT_FSIZE, (1, resource.RLIM_INFINITY))
    sender = place.sender("--copies", "400", element)
    place.wait(sender, "waiting")
    resource.prlimit(server.pid, resource.RLIMIT_FSIZE, [resource.RLIM_INFINITY] * 2)
    server.terminate()  # a full disk disables JetStream
    server.wait()
    place.cluster.restart(0)
    place.end(sender, says="400 of 400")


for which, seconds in ((0, 1, 2), 10), ((0, 1, 2), 75), ((0, 1), 20):

    @case(f"{len(which)} of 3 servers killed for {seconds} s", 3)
    def _(place, which=which, seconds=seconds):
        place.work()
        sender = place.sender("--copies", "20000", place.noise(10_000))
        place.wait(sender, r"\n(sent .*\n){100}")
        place.away(seconds, *which)
        place.end(sender, says="20000 of 20000")
        assert place.workers[0].log.read_text().count("ready") == 1


@case("a long decode, then a server that is away")
def _(place):
    place.work("--redeliver-after", "3")
    sender = place.sender("-f", "trap", place.file("trap", b"sleep 12"))
    time.sleep(11)
    place.away(3, 0)
    place.end(sender, says="1 of 1 elements? decoded, 0 of them")


@case("the sender's server is frozen for good", 3)
def _(place):
    place.work()
    place.common[1] = place.common[1].split(",")[0]
    sender = place.sender("--copies", "4000", place.noise(100_000))
    place.wait(sender, r"\n(sent .*\n){100}")
    place.servers[0].send_signal(signal.SIGSTOP)
    place.end(sender, says="4000 of 4000", within=300)


@case("elements that end their decoder", 3)
def _(place):
    place.work("--redeliver-after", "2", "--patience", "4")
    files = [place.file(f"{i}", b"harmless") for i in range(300)]
    for i, word in enumerate(["abort", "exit", "sleep 1000"]):
        files[100 * i] = place.file(word, word.encode())
    sender = place.sender("-f", "trap", *files)
    time.sleep(3)
    place.servers[0].kill()  # perhaps a leader, while workers report
    text = place.end(sender, 1, "297 of 300 elements decoded")
    for why in "abort: .*with signal 6", "exit: .*ended the process", "1000: .*longer than 4 s":
        assert re.search(why, text), f"no {why!r}: {text[-1500:]}"


@case(
    "200 messages of strangers beside an honest run",
    extra=pathlib.Path("examples/nats/permissions.conf").read_text(),
)
def _(place):
    place.env["NATS_PASSWORD"] = "w"
    place.work("--user", "worker", count=1)
    time.sleep(1)
    place.wait(place.workers[0], "ready")
    place.env["NATS_PASSWORD"] = "s"
    honest = ["--user", "sender", "-f", "raw", "--copies", "3000", place.noise(10240)]
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
    roundtrip = "build/release/examples/roundtrip/roundtrip"
    listed = subprocess.check_output([roundtrip, "--list"], text=True)
    types = {name: int(i, 16) for name, i in re.findall(r"(\w+) +(0x\w{16})", listed)}
    labels = [b"", b"x", b"[1,2,3]", b'["raw",-1]', b'{"a":1}', b"[" * 3000, b"\x1b[31m\x00"]
    malformed = [b"A", b"A: \x1b[31m\x00", b" : ", *(b"Courier-Label: " + x for x in labels)]
    true, reports = [0, 10240, 1, 1, 1, ""], []
    for k, lies in enumerate(
        [[-1, 3000, 2**64, 0.5, [[]]], [1], ["x"], [0, None], [-1, 2**62]]
    ):
        reports += [[*true[:k], lie, *true[k + 1 : 5], "\x1b[31m"] for lie in lies]
    reports = [json.dumps([report]).encode() for report in [true, *reports]]
    reports += [b"", b"\xff\xfe", b"0", b"[0]", b"[" * 1_000_000, bytes(2 << 20)]
    for i in range(200):
        if i == 45:  # behind the first of each kind
            sender = place.sender(*honest)
            run = place.wait(sender, r"sent (\w+) ")[1]
        user, subject, content, headers = "sender", f"elements.{i:016x}.{i}", b"", None
        if i % 3 == 0:
            name, wire_format, content = elements[i // 3 % len(elements)]
            label = json.dumps([wire_format, types[name], zlib.crc32(content)])
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
    place.wait(place.workers[0], "ignored, message 67:", within=200)
    assert place.peak < LIMIT + (32 << 20), f"{place.peak >> 20} MiB"
    assert "\x1b" not in place.workers[0].log.read_text(errors="replace")


def openssl(directory, command):
    command = ["openssl", *command.split()]
    return subprocess.run(command, cwd=directory, check=True, capture_output=True).stdout


def certify(directory, name, ca=None, days=1):
    """The lines of a server's configuration for a new certificate."""
    extension = "subjectAltName=IP:127.0.0.1" if ca else "basicConstraints=critical,CA:TRUE"
    (directory / f"{name}.ext").write_text(extension)
    key = f"ec -pkeyopt ec_paramgen_curve:P-256 -nodes -keyout {name}.key -subj /CN={name}"
    openssl(directory, f"req -newkey {key} -out {name}.csr")
    signer = f"-CA {ca}.pem -CAkey {ca}.key" if ca else f"-signkey {name}.key"
    command = f"x509 -req -in {name}.csr {signer} -days {days} -out {name}.pem -extfile {name}.ext"
    openssl(directory, command)
    return f"tls {{ cert_file: '{directory}/{name}.pem', key_file: '{directory}/{name}.key'"


class Nkey:
    """An Ed25519 key of NATS: `kind` is the first letter of its public form."""

    def __init__(self, directory, kind):
        self.directory, seed = directory, os.urandom(32)
        self.file = directory / seed.hex()
        self.file.write_bytes(bytes.fromhex("302e020100300506032b657004220420") + seed)
        public = openssl(directory, f"pkey -pubout -inform DER -outform DER -in {self.file}")[-32:]
        prefix = (ord(kind) - ord("A")) << 3
        self.public = self.encode(bytes([prefix]) + public)
        self.secret = self.encode(bytes([144 | prefix >> 5, (prefix & 31) << 3]) + seed)

    @staticmethod
    def encode(data):
        checked = data + binascii.crc_hqx(data, 0).to_bytes(2, "little")
        return base64.b32encode(checked).decode().rstrip("=")

    def sign(self, subject, kind, expires=2**33, **claims):
        claims = {"type": kind, "version": 2, **claims}
        names = {"iss": self.public, "sub": subject.public, "iat": 0, "exp": expires, "jti": "x"}
        parts = [{"typ": "JWT", "alg": "ed25519-nkey"}, names | {"nats": claims}]
        code = lambda data: base64.urlsafe_b64encode(data).rstrip(b"=")
        text = b".".join(code(json.dumps(part).encode()) for part in parts)
        (self.directory / "text").write_bytes(text)
        sign = f"pkeyutl -sign -rawin -keyform DER -in text -inkey {self.file}"
        return (text + b"." + code(openssl(self.directory, sign))).decode()


def credentials(place):
    """The configuration of a server, and files of credentials for it."""
    operator, account, system, user, other = (Nkey(place.directory, kind) for kind in "OAAUU")
    unlimited = dict.fromkeys(["subs", "data", "payload", "conn", "imports", "exports"], -1)
    store = dict.fromkeys(["mem_storage", "disk_storage", "streams", "consumer"], -1)
    limits = {**unlimited, **store, "wildcards": True}
    accounts = f"""resolver_preload: {{
        {account.public}: {operator.sign(account, 'account', limits=limits)}
        {system.public}: {operator.sign(system, 'account', limits=unlimited)} }}"""
    trust = f"operator: {operator.sign(operator, 'operator')}\nsystem_account: {system.public}\n"
    files = {"junk": place.file("junk", os.urandom(1000))}
    for name, key, expires in (
        ("good", user, 2**33),
        ("wrong", other, 2**33),
        ("expired", user, 1),
    ):
        jwt = account.sign(user, "user", expires, subs=-1, data=-1, payload=-1)
        kinds = ("NATS USER JWT", jwt), ("USER NKEY SEED", key.secret)
        text = [f"-----BEGIN {kind}-----\n{data}\n------END {kind}------\n" for kind, data in kinds]
        files[name] = place.file(name, "\n".join(text).encode())
    return files, trust + "resolver: MEMORY\n" + accounts


@case("what the servers refuse, or have not, is said at once")
def _(place):
    place.env |= {"NATS_PASSWORD": "secret", "NATS_TOKEN": "secret"}
    directory, refused = place.directory, "Authorization Violation"
    certify(directory, "ca"), certify(directory, "other")
    server, expired = certify(directory, "server", "ca"), certify(directory, "expired", "ca", -1)
    mutual = f"{server}, ca_file: '{directory}/ca.pem', verify: true"
    trusted, other = (["--ca", f"{directory}/{name}.pem"] for name in ("ca", "other"))
    login = "authorization {{ users: [{{ user: me, password: secret, permissions: {{ {} }} }}] }}"
    denied = login.format("publish: { deny: 'elements.>' }")
    tls = lambda lines: {"scheme": "tls://", "extra": lines + "}"}
    files, keys = credentials(place)
    for status, says, arguments, options in (
        (1, "no JetStream", [], {"jetstream": False}),
        (1, 'refuse.* Publish to "elements', ["--user=me"], {"extra": denied}),
        (1, refused, [], {"scheme": "nats://me:secrets@", "extra": login.format("")}),
        (1, refused, [], {"extra": "authorization { token: a }"}),
        (0, "1 of 1", [], {"extra": "authorization { token: secret }"}),
        (1, "client certificate", trusted, tls(mutual)),
        (1, "has expired", trusted, tls(expired)),
        (1, "certificate", other, tls(server)),
        (0, "1 of 1", trusted, tls(server)),
        (0, "1 of 1", ["--credentials", files["good"]], {"extra": keys, "size": 3}),
        (1, refused, ["--credentials", files["expired"]], {"extra": keys}),
        (1, refused, ["--credentials", files["wrong"]], {"extra": keys}),
        (1, "no nkey user seed", ["--credentials", files["junk"]], {"extra": keys}),
    ):
        with cluster.Cluster(directory / "other", **{"size": 1, **options}) as servers:
            place.common = [*servers.arguments, *arguments]
            worker = place.start("worker", "worker")
            text = place.send("LICENSE", status=status, says=says)
            cluster.stop([worker])
            assert "secret" not in text + worker.log.read_text(), text


def failover(place, seed):
    """Kills or freezes a worker and a server at random moments, then interrupts a sender. Nothing
    that was sent is lost or changed."""
    chance = random.Random(seed)
    sizes, copies = (
        ([0, 1, 1000], 40) if seed % 2 else ([0, 1, 1000, 10**5, 2**20, 3_000_000], 4)
    )
    contents = [chance.randbytes(chance.choice(sizes)) for _ in range(100)]
    files = [place.file(f"{i}.blob", content) for i, content in enumerate(contents)]
    place.work(count=3)

    def decoded():
        text = "".join(log.read_text() for log in place.directory.glob("w*.log"))
        return re.findall(r"(?m)^decoded (\w+) (\d+) \S+ \d+ \d+ \d+$", text)

    def check(sender):
        sent = re.findall(r"(?m)^sent (\w+) (\d+) \S+ (\d+) (\d+)$", sender.log.read_text())
        assert not {each[:2] for each in sent} - set(decoded()), "lost"
        for _, i, size, crc in sent if formats == "raw" else []:
            content = contents[int(i) % 100]
            assert (int(size), int(crc)) == (len(content), zlib.crc32(content)), f"{i} is wrong"

    formats = "raw" if seed % 4 < 2 else "zstd"
    sender = place.sender("-f", formats, "--copies", str(copies), *files)
    events, victims = [], chance.sample(["workers", "servers"], 2)
    for what, share in zip(victims, sorted(chance.uniform(0.05, 0.7) for _ in victims)):
        while len(decoded()) < share * copies * 100 and sender.poll() is None:
            time.sleep(0.1)
        victim = chance.choice(getattr(place, what))
        number = chance.choice([signal.SIGKILL, signal.SIGSTOP])
        victim.send_signal(number)
        if number == signal.SIGSTOP:
            timer = threading.Timer(15, victim.send_signal, [signal.SIGCONT])
            timer.start()
            place.callback(timer.join)
        events.append(f"{what} {number.name}")
    place.end(sender, says=f"{100 * copies} of {100 * copies} elements decoded")
    check(sender)
    sender = place.sender("-f", formats, "--copies", str(100 * copies), *files)
    place.wait(sender, r"(sent .*\n(sender: .*\n)*){%d}" % chance.randrange(1, 200))
    sender.send_signal(signal.SIGINT)
    place.end(sender, 130)
    check(sender)
    return ", ".join(events)


def run(name, function, size, options):
    start, result = time.monotonic(), ""
    try:
        with Place(name, size, options) as place:
            result = function(place) or ""
        status = "passed"
    except Exception:
        status, result = "FAILED", traceback.format_exc()
    print(f"{status} {time.monotonic() - start:4.0f} s  {name}  {result}", flush=True)
    return status == "passed"


shutil.rmtree(STATE, ignore_errors=True)
shutil.copytree("build/release/examples/nats", PROGRAMS)
shutil.copytree("build/release/examples/modules", PROGRAMS / "../modules")
shutil.copy("build/release/tests/trap.so", PROGRAMS / "../modules")
os.environ.update(SENDER_PASSWORD="s", WORKER_PASSWORD="w", STRANGER_PASSWORD="x")
work = [(name, *CASES[name]) for name in CASES if name.startswith(tuple(sys.argv[1:] or [""]))]
if sys.argv[1:2] == ["--failover"]:
    first, count = map(int, sys.argv[2:])
    work = [
        (f"seed {seed}", functools.partial(failover, seed=seed), 3, {})
        for seed in range(first, first + count)
    ]
results = [run(*each) for each in work]
print(f"{sum(results)} of {len(results)} passed")
sys.exit(not all(results))
