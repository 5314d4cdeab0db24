# SPDX-License-Identifier: Apache-2.0
"""The example program says what came back and what went wrong: roundtrip.py PROGRAM"""

import pathlib
import random
import re
import subprocess
import sys
import tempfile

noise = random.Random(1).randbytes  # does not compress
FILES = {
    "doc.json": b'{"a": [1, -2.5, 9223372036854775807, null, "\\u00e9"]}',
    "list.json": b"[1, 2]",
    "bad.json": '{\n  "é": nul\n}'.encode(),
    "empty": b"",
    "odd": noise(5137),  # not a multiple of a page
    "big": noise(64 << 20),
}
BIGS = 8 * " big"  # takes seconds to deflate
CASES = [  # arguments, exit status, output
    ("", 0, r"LICENSE .*\n.* json .*\n.*\n.* protobuf .*\n.* cereal .* identical\n\n5 of 5"),
    ("--list", 0, r"Document +0x\w{16}  json cbor .*\nBlob .*  raw deflate zstd"),
    ("doc.json empty", 0, r"  json .* identical\nempty .*  raw .* identical\n\n2 of 2"),
    ("-f cbor -f msgpack doc.json list.json", 0, r" cbor .*\n.* msgpack .*\n\n2 of 2"),
    ("-f bson -f ubjson doc.json list.json", 0, r" bson .*\n.* ubjson .*\n\n2 of 2"),
    ("-f deflate -f zstd -t 1 empty odd", 0, r" deflate .*\n.* zstd .*\n\n2 of 2"),
    ("missing", 1, r"^roundtrip: cannot read missing: No such file or directory\n$"),
    (".", 1, r"^roundtrip: cannot read .: Is a directory\n$"),
    ("bad.json", 1, r"^roundtrip: bad.json: parse error at line 3.*nul<U"),
    ("-f bson odd", 1, r"^roundtrip: no module .* Blob .*bson.* raw, deflate, zstd\n$"),
    ("-f bson list.json doc.json", 1, r"FAILED\n.*identical\nroundtrip: list.json: .*object"),
    ("-f raw -f raw odd odd odd", 1, r"^roundtrip: too few wire formats: .*\n$"),
    ("--read-limit 1000 -f zstd odd", 1, r"FAILED\nroundtrip: odd: cannot be read back"),
    ("-f deflate -t 1" + BIGS, 130, r"not written\n\n.*\nroundtrip: cancelled when . of 8"),
]

failed = False
with tempfile.TemporaryDirectory() as directory:
    for name, content in FILES.items():
        pathlib.Path(directory, name).write_bytes(content)
    for arguments, status, output in CASES:
        # As if Control-C were pressed. Only the last case runs that long.
        command = ["timeout", "-s", "INT", "--preserve-status", "2", *sys.argv[1:]]
        command += arguments.split()
        ran = subprocess.run(
            command, cwd=directory, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True
        )
        if ran.returncode != status or not re.search(output, ran.stdout):
            failed = True
            print(f"FAILED: {arguments}: status {ran.returncode}\n{ran.stdout}")
sys.exit(failed)
