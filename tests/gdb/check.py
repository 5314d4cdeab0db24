# SPDX-License-Identifier: Apache-2.0
# Run by gdb on the test's program: compares what gdb shows with what it should show. The exit status is
# 77 if gdb is not allowed to trace a program, as in some containers.
import os
import re

import gdb

HELLO = r'24 bytes: 68 65 6c 6c 6f 2c 20 22 77 6f 72 6c 64 22 0a 20 ... "hello, .world.. " ...'
ID = r"type 0x[0-9a-f]{16}"
shown = {
    "view": rf"ByteBufferView, {HELLO}",
    "vectorForm": rf"ByteBuffer, vector form, {HELLO}",
    "externalForm": r'ByteBuffer, external form, 1 byte: 68 "h"',
    "empty": r"ByteBuffer, vector form, empty",
    "payload": rf"GenericPayload, 3 elements, elementCount 2 = \{{\[{ID}, Price\] = \{{cents = 1999\}}, "
    rf"\[{ID}, int\] = 42, \[{ID}\] = null\}}",
    "unreleased": r"Sentinel, not released",
    "released": r"Sentinel, released",
}
for name in ("core::GenericPayload", "serialisation::ByteBuffer", "serialisation::Sentinel"):
    shown[f"*('courier::hub::{name}'*)garbage"] = r"\w+, not a valid object( = .*)?"

gdb.execute("set disable-randomization off")  # asks for a right that containers refuse
gdb.execute("break look")
try:
    gdb.execute("run")
except gdb.error as error:
    print(error, flush=True)
    os._exit(77 if "ptrace" in str(error) else 1)
status = 0
while gdb.selected_inferior().pid != 0:
    gdb.execute("up")
    for expression, pattern in shown.items():
        output = gdb.execute(f"output {expression}", to_string=True)
        if not re.fullmatch(pattern, output, re.DOTALL):
            status = 1
            print(f"FAILED: {expression} shows as\n  {output}", flush=True)
    gdb.execute("continue")
os._exit(status)
