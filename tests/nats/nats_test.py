# SPDX-License-Identifier: Apache-2.0
"""The NATS programs on servers of their own, which fail, fill up, refuse and freeze, and beside
strangers. Leaves no process behind."""

import argparse
import base64
import binascii
import concurrent.futures
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

from cryptography.hazmat.primitives import serialization
from cryptography.hazmat.primitives.asymmetric.ed25519 import Ed25519PrivateKey

sys.path.insert(0, "examples/nats")
import cluster

STATE = pathlib.Path(os.environ.get("STATE", "build/nats-test")).resolve()
PROGRAMS = STATE / "programs/nats"
LIMIT = 256 << 20  # of the memory for reading
CASES = {}


class Place(contextlib.ExitStack):
    """Servers, workers, senders and files of one case."""

    def __init__(self, name, size, options):
        super().__init__()
        self.directory = STATE / re.sub(r"\W+", "-", name)
        self.directory.mkdir()
        self.cluster = cluster.Cluster(self.directory / "servers", size, **options)
        self.servers = self.enter_context(self.cluster).servers
        self.url, self.common = self.cluster.url, ["--replicas", str(size)]
        self.number = itertools.count()

    def work(self, *arguments, count=2):
        arguments = ["--url", self.url, *self.common, *arguments]
        workers = cluster.workers(self.directory, arguments, count, PROGRAMS)
        self.workers = self.enter_context(workers)

    def sender(self, *arguments):
        log = self.directory / f"sender-{next(self.number)}.log"
        command = [PROGRAMS / "sender", *self.common, *arguments]
        sender = cluster.start(command, log, env=os.environ | {"NATS_URL": self.url})
        self.callback(cluster.stop, [sender])
        sender.text = functools.partial(log.read_text, errors="replace")
        return sender

    def text(self, worker="w0"):
        return (self.directory / f"{worker}.log").read_text(errors="replace")

    def file(self, name, content):
        (self.directory / name).write_bytes(content)
        return str(self.directory / name)

    def noise(self, size, seed=1):
        return self.file(f"{size}-{seed}", random.Random(seed).randbytes(size))

    def end(self, sender, says, status=0):
        """The sender ends with this status, and with these words in its output."""
        with contextlib.suppress(subprocess.TimeoutExpired):
            sender.wait(300)
        text = sender.text()
        assert sender.poll() == status, f"status {sender.poll()}, not {status}: {text[-1500:]}"
        assert re.search(says, text) and "\x1b" not in text, f"no {says!r}: {text[-1500:]}"
        return text

    def send(self, *arguments, says, status=0):
        return self.end(self.sender(*arguments), says, status)

    def wait(self, text, pattern):
        deadline = time.monotonic() + 120
        while not (found := re.search(pattern, text())):
            assert time.monotonic() < deadline, f"no {pattern!r}: {text()[-1500:]}"
            time.sleep(0.02)
        return found

    def pressed(self, size, count, *arguments):
        """A sender of more than it may put into the stream, when it waits."""
        arguments = "--max-bytes", "2MiB", "--copies", str(count), *arguments, self.noise(size)
        sender = self.sender(*arguments)
        self.wait(sender.text, "(reached its limit|no worker has reported).*waiting")
        return sender

    def publish(self, user, messages):
        """As a stranger would who has no client library. The server must not refuse it."""
        login = json.dumps({"verbose": False, "headers": True, "user": user, "pass": "secret"})
        lines = [f"CONNECT {login}\r\n".encode()]
        for subject, header, content in messages:
            head = b"NATS/1.0\r\n" + header + b"\r\n\r\n"
            lines.append(f"HPUB {subject} {len(head)} {len(head + content)}\r\n".encode())
            lines.append(head + content + b"\r\n")
        with socket.create_connection(("127.0.0.1", self.cluster.ports[0]), 5) as server:
            server.sendall(b"".join(lines) + b"PING\r\n")
            answer = b""
            while b"PONG" not in answer:
                answer += server.recv(65536) or b"-ERR closed"
                assert b"-ERR" not in answer, answer


def case(name, size=1, **options):
    return lambda run: CASES.update({name: (run, size, options)})


for which, seconds in ((0, 1, 2), 75), ((0, 1, 2), 10), ((0, 1), 20):

    @case(f"{len(which)} of 3 servers killed for {seconds} s", 3)
    def _(place, which=which, seconds=seconds):
        place.work()
        sender = place.sender("--copies", "20000", place.noise(10_000))
        place.wait(sender.text, r"[1-9]\d* reported")
        for i in which:
            place.servers[i].kill()
        time.sleep(seconds)
        for i in which:
            place.cluster.start_server(i)
        place.end(sender, "20000 of 20000")
        assert place.text().count("ready") == 1


@case("the sender's server is frozen for good", 3)
def _(place):
    place.work()
    place.url = place.url.split(",")[0]
    sender = place.sender("--copies", "4000", place.noise(100_000))
    place.wait(sender.text, r"[1-9]\d* reported")
    place.servers[0].send_signal(signal.SIGSTOP)
    place.end(sender, "4000 of 4000")


for size in 1, 3:

    @case(f"full stream, {size} servers: the sender waits and goes on", size)
    def _(place):
        kinds = (1000, 5000), (50_000, 200), (200_000, 50)
        senders = [place.pressed(*kind) for kind in kinds]
        place.work()
        for sender, (_, count) in zip(senders, kinds):
            place.end(sender, f"{count} of {count} elements decoded")


@case("full stream, filled by a killed sender; Control-C and --give-up-after")
def _(place):
    arguments = "--max-bytes", "2MiB", "--copies", "200", place.noise(50_000)
    for killed in [place.sender(*arguments) for _ in range(12)]:  # together, more than its limit
        place.wait(killed.text, "waiting")
        killed.kill()
    stopped = place.pressed(50_000, 200, "-t", "4")
    place.wait(stopped.text, "reached its limit")
    stopped.send_signal(signal.SIGINT)
    place.end(stopped, "stopped when", 130)
    place.end(place.pressed(50_000, 200, "--give-up-after", "3"), "gave up: nothing was stored", 1)
    sender = place.pressed(50_000, 50)
    place.work()
    place.end(sender, "50 of 50 elements decoded")


@case("elements that are too large, and almost")
def _(place):
    place.common += ["--max-bytes", "12MiB"]
    place.work()
    large = place.file("large", bytes(13 << 20))
    place.send("-f", "raw", large, says="large: .*--max-bytes.*split", status=1)
    eight = [place.noise(8_000_000, i) for i in range(4)]
    for sender in [place.sender("-f", "raw", "-t", "4", *eight) for _ in range(2)]:
        place.end(sender, "4 of 4 elements decoded")


@case(
    "a disk of 60 MB, by the server's limit, and a full one",
    jetstream="jetstream {{ {store}, max_file: 60MB }}",
)
def _(place):
    element, server = place.noise(50_000), place.servers[0]
    place.send(element, says="cannot reserve 2147483648 bytes.*--max-bytes", status=1)
    place.common += ["--max-bytes", "10MiB"]
    place.work()
    place.send("--copies", "1000", element, says="1000 of 1000")
    # No file may grow: what the server writes fails, as on a full disk.
    resource.prlimit(server.pid, resource.RLIMIT_FSIZE, (1, resource.RLIM_INFINITY))
    sender = place.sender("--copies", "400", element)
    place.wait(sender.text, "waiting")
    server.kill()  # a full disk disables JetStream
    server.wait()
    place.cluster.start_server(0)
    place.end(sender, "400 of 400")


@case("a long decode, then a server that is away; an element above max_payload")
def _(place):
    place.work("--redeliver-after", "3")
    sender = place.sender("-f", "trap", place.file("trap", b"sleep 12"))
    huge = place.file("huge", bytes(33 << 20))
    place.send("-f", "raw", huge, says="huge: .*max_payload.*split", status=1)
    time.sleep(10)
    place.servers[0].kill()
    time.sleep(3)
    place.cluster.start_server(0)
    place.end(sender, "1 of 1 element decoded, 0 of them")


@case("elements that end their decoder", 3)
def _(place):
    place.work("--redeliver-after", "2", "--patience", "4")
    files = [place.file(f"{i}", b"harmless") for i in range(300)]
    for i, word in enumerate(["abort", "exit", "sleep 1000"]):
        files[100 * i] = place.file(word, word.encode())
    sender = place.sender("-f", "trap", *files)
    time.sleep(3)
    place.servers[0].kill()  # perhaps a leader, while workers report
    text = place.end(sender, "297 of 300 elements decoded", 1)
    for why in "abort: .*with signal 6", "exit: .*ended the process", "1000: .*longer than 4 s":
        assert re.search(why, text), f"no {why!r}: {text[-1500:]}"


@case("200 messages of strangers", extra=pathlib.Path("examples/nats/permissions.conf").read_text())
def _(place):
    url = place.url
    place.url = url.replace("//", "//worker:secret@")
    place.work(count=1)
    place.wait(place.text, "ready")
    place.url = url.replace("//", "//sender:secret@")
    roundtrip = "build/release/examples/roundtrip/roundtrip"
    listed = subprocess.check_output([roundtrip, "--list"], text=True)
    types = {name: int(i, 16) for name, i in re.findall(r"(\w+) +(0x\w{16})", listed)}
    elements = [  # that are well-formed: type, wire format, bytes
        ("Document", "ubjson", b"[$Z#l\x7f\xff\xff\xff"),
        ("Document", "msgpack", b"\xdd\xff\xff\xff\xff" + bytes(9)),
        ("Document", "cbor", b"\x9f" + 4_000_000 * b"\x80"),
        ("Document", "cbor", b"\x9f" + 900_000 * b"\xa1\x60\x80"),
        ("Document", "json", 100_000 * b'{"":'),
        ("Document", "json", b"[" + b'"\\u0000",' * 1_000_000),
        ("Blob", "zstd", b"\x28\xb5\x2f\xfd\x00\x50" + 9999 * b"\x02\x00\x10\x00"),
        ("Blob", "deflate", zlib.compress(bytes(2 * LIMIT))),
        ("Blob", "none\x1b[31m", b"x"),
        ("Listing", "protobuf", 4_000_000 * b"\x12\x00"),
    ]
    labels = [b"", b"x", b"1\t2", b"1\t-2\traw", b"1\t2\traw\tx", b"\x1b[31m\x00", 9999 * b"\t"]
    headers = [b"A: \x1b[31m\x00", b" : ", *(b"Courier-Label: " + label for label in labels)]
    good, bad = itertools.cycle(elements), itertools.cycle(headers)
    subjects = "elements.{0:016x}.1", "elements.{0}.1", "elements.{0:016x}.x", "elements.\x1b[31m.1"
    messages = []
    for i, subject in zip(range(67), itertools.cycle(subjects)):
        name, wire_format, content = next(good)
        label = f"Courier-Label: {types[name]}\t{zlib.crc32(content)}\t{wire_format}"
        messages.append((f"elements.{i:016x}.{i}", label.encode(), content))
        messages.append((subject.format(i), next(bad), b""))
    place.publish("sender", messages)
    sender = place.sender("-f", "raw", "--copies", "20000", noise := place.noise(10240))
    run = place.wait(place.text, r"(\w+)\t\d+\t10240\t")[1]
    crc = zlib.crc32(pathlib.Path(noise).read_bytes())
    truth = ["0", "10240", str(crc), "1", "1", ""]
    lies = {
        0: ["-1", "20000", str(2**64), ""],
        1: ["1"],
        2: ["0"],
        3: ["0"],
        4: [str(2**62), "1 "],
    }
    lies = ["\t".join([*truth[:k], x, *truth[k + 1 :]]).encode() for k in lies for x in lies[k]]
    lies += [b"", b"\xff\xfe", b"\x1b[\t", 5 * b"0\t" + b"\n", bytes(2 << 20), 99999 * b"\t"]
    reports = [("w0", lie) for lie in lies] + [(x, "\t".join(truth).encode()) for x in "\x1b!"]
    reports = itertools.islice(itertools.cycle(reports), 66)
    place.publish("worker", [(f"elements-reports.{run}.{w}", b"", text) for w, text in reports])
    text = place.end(sender, "20000 of 20000 elements decoded, 0 of them")
    assert re.search(r"worker .*\nw0 +20,000 +[\d,]+ .*\n\n", text), text[-1500:]
    assert "sender: ignored, message 66: " in text, text[-1500:]
    place.wait(place.text, "ignored, message 67:")
    status = pathlib.Path(f"/proc/{place.workers[0].pid}/status").read_text()
    assert int(re.search(r"VmHWM:\s+(\d+) kB", status)[1]) << 10 < LIMIT + (32 << 20), status
    assert "\x1b" not in place.text() and place.text().count("ready") == 1


class Nkey:
    """An Ed25519 key of NATS: `kind` is the first letter of its public form."""

    def __init__(self, kind):
        seed, prefix = os.urandom(32), (ord(kind) - ord("A")) << 3
        self.key = Ed25519PrivateKey.from_private_bytes(seed)
        raw = serialization.Encoding.Raw, serialization.PublicFormat.Raw
        self.public = self.code(bytes([prefix]) + self.key.public_key().public_bytes(*raw))
        self.secret = self.code(bytes([144 | prefix >> 5, (prefix & 31) << 3]) + seed)

    @staticmethod
    def code(data):
        checked = data + binascii.crc_hqx(data, 0).to_bytes(2, "little")
        return base64.b32encode(checked).decode().rstrip("=")

    def sign(self, subject, kind, expires=2**33, **claims):
        names = {"iss": self.public, "sub": subject.public, "iat": 0, "exp": expires, "jti": "x"}
        names["nats"] = {"type": kind, "version": 2, **claims}
        parts = {"typ": "JWT", "alg": "ed25519-nkey"}, names
        code = lambda data: base64.urlsafe_b64encode(data).rstrip(b"=")
        text = b".".join(code(json.dumps(part).encode()) for part in parts)
        return (text + b"." + code(self.key.sign(text))).decode()


def add_logins():
    """What servers want, and what the sender gives, says and ends with."""
    operator, account, system, user, other = map(Nkey, "OAAUU")
    names = "subs data payload conn mem_storage disk_storage streams consumer".split()
    grant = lambda a, names: operator.sign(a, "account", limits=dict.fromkeys(names, -1))
    keys = f"""trusted_keys: [{operator.public}], system_account: {system.public}, resolver: MEMORY
        resolver_preload: {{ {account.public}: {grant(account, names)}
        {system.public}: {grant(system, names[:4])} }}"""

    def credentials(name, key, expires=2**33):
        jwt = account.sign(user, "user", expires, subs=-1, data=-1, payload=-1)
        kinds = ("NATS USER JWT", jwt), ("USER NKEY SEED", key.secret)
        text = [f"-----BEGIN {kind}-----\n{data}\n------END {kind}------\n" for kind, data in kinds]
        (STATE / name).write_text("\n".join(text))
        return ["--credentials", STATE / name]

    pem = os.environ["SSL_CERT_FILE"] = str(STATE / "certificate.pem")
    request = "openssl req -x509 -newkey ed25519 -nodes -days 9 -subj /CN=x"
    request += f" -addext subjectAltName=IP:127.0.0.1 -keyout {pem}.key -out {pem}"
    subprocess.run(request.split(), check=True, capture_output=True)
    tls = f"tls {{ cert_file: '{pem}', key_file: '{pem}.key', ca_file: '{pem}', verify: %s }}"
    users = "authorization: {{ users: [{{ user: me, password: secret, {} }}] }}".format
    denied = users("permissions: { publish: { deny: 'elements.>' } }")
    wrong, good, url = "Authorization Violation", "1 of 1", "nats://"
    for name, size, extra, prefix, arguments, status, says in [
        ("no permission", 1, denied, "nats://me:secret@", [], 1, 'refuse.* Publish to "elements'),
        ("a wrong password", 1, users(""), "nats://you:secret@", [], 1, wrong),
        ("TLS", 1, tls % "false", "tls://", [], 0, good),
        ("no client certificate", 1, tls % "true", "tls://", [], 1, "client certificate"),
        ("credentials", 3, keys, url, credentials("good", user), 0, good),
        ("expired credentials", 1, keys, url, credentials("expired", user, 1), 1, wrong),
        ("another's seed", 1, keys, url, credentials("other", other), 1, wrong),
        ("junk", 1, keys, url, ["--credentials", "/bin/true"], 1, "no nkey user seed"),
    ]:
        case("log in: " + name, size, extra=extra)(
            functools.partial(log_in, prefix=prefix, arguments=arguments, status=status, says=says)
        )


@case("no JetStream", jetstream="")
def _(place):
    log_in(place, "nats://", [], 1, "no JetStream")


def log_in(place, prefix, arguments, status, says):
    place.url = place.url.replace("nats://", prefix)
    place.work(*arguments, count=1)
    text = place.send(*arguments, "LICENSE", says=says, status=status)
    assert "secret" not in text + place.text(), text


def failover(place, seed):
    """Kills or freezes a worker and a server at random moments. Nothing is lost or changed."""
    chance = random.Random(seed)
    sizes = [0, 1, 1000] if seed % 2 else [0, 1, 1000, 10**5, 2**20, 3_000_000]
    copies, wire_format = 40 if seed % 2 else 4, "raw" if seed % 4 < 2 else "zstd"
    contents = [chance.randbytes(chance.choice(sizes)) for _ in range(100)]
    files = [place.file(f"{i}.blob", content) for i, content in enumerate(contents)]
    crcs = [f"{len(content)}\t{zlib.crc32(content)}" for content in contents]
    place.work(count=3)

    def decoded():
        logs = "".join(map(place.text, ["w0", "w1", "w2"]))
        lines = re.findall(r"(?m)^\w+\t(\d+)\t(\d+\t\d+)\t\d+\t\d+\t$", logs)
        for i, crc in lines:
            assert crc == crcs[int(i) % 100] or wire_format != "raw", f"{i} is wrong"
        return len({i for i, _ in lines})

    sender = place.sender("-f", wire_format, *files, "--copies", str(copies))
    events, victims = [], chance.sample(["workers", "servers"], 2)
    for what, share in zip(victims, sorted(chance.uniform(0.05, 0.7) for _ in victims)):
        while decoded() < share * copies * 100 and sender.poll() is None:
            time.sleep(0.1)
        victim = chance.choice(getattr(place, what))
        number = chance.choice([signal.SIGKILL, signal.SIGSTOP])
        victim.send_signal(number)
        if number == signal.SIGSTOP:
            timer = threading.Timer(15, victim.send_signal, [signal.SIGCONT])
            timer.start()
            place.callback(timer.join)
        events.append(f"{what} {number.name}")
    place.end(sender, f"{100 * copies} of {100 * copies} elements decoded")
    assert decoded() == 100 * copies, "lost"
    return ", ".join(events)


def run(name, function, size, options):
    start, result, status = time.monotonic(), "", "passed"
    try:
        with Place(name, size, options) as place:
            result = function(place) or ""
    except Exception:
        status, result = "FAILED", traceback.format_exc()
    print(f"{status} {time.monotonic() - start:4.0f} s  {name}  {result}", flush=True)
    return status == "passed"


parser = argparse.ArgumentParser(description=__doc__)
parser.add_argument("cases", nargs="*", default=[""], help="how their names begin; default: all")
parser.add_argument("--failover", nargs=2, type=int, metavar=("FIRST", "N"), help="N runs instead")
parser.add_argument("--jobs", type=int, default=4, help="cases at the same time")
options = parser.parse_args()
shutil.rmtree(STATE, ignore_errors=True)
shutil.copytree("build/release/examples/nats", PROGRAMS)
shutil.copytree("build/release/examples/modules", STATE / "programs/modules")
shutil.copy("build/release/tests/trap.so", STATE / "programs/modules")
os.environ.update(SENDER_PASSWORD="secret", WORKER_PASSWORD="secret")
add_logins()
work = [(name, *CASES[name]) for name in CASES if name.startswith(tuple(options.cases))]
if options.failover:
    first, count = options.failover
    seeds = range(first, first + count)
    work = [(f"seed {i}", functools.partial(failover, seed=i), 3, {}) for i in seeds]
with concurrent.futures.ThreadPoolExecutor(options.jobs) as pool:
    results = list(pool.map(lambda each: run(*each), work))
print(f"{sum(results)} of {len(results)} passed")
sys.exit(not all(results))
