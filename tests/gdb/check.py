# SPDX-License-Identifier: Apache-2.0
# Run by gdb on the test's program: compares what gdb shows with what it should show. The exit status is
# 77 if gdb is not allowed to trace a program, as in some containers.
import os
import re
import sys

import gdb

ID = r"0x[0-9a-f]{16}"
AT = r"0x[0-9a-f]+"
HELLO = r'24 bytes: 68 65 6c 6c 6f 2c 20 22 77 6f 72 6c 64 22 0a 20 ... "hello, .world.. " ...'
JSON = rf'"json", type {ID} of \[{ID}\]'
TEXT = rf'"text", type {ID} of \[{ID}, {ID}\], view factory calls .*makeWriter\(.*GenericPayloadView&&\)'
READS = r"calls .*GenericDeserialiser::wrap<.*Price.*"

shown = {
    "view": rf"ByteBufferView, {HELLO}",
    "nullView": r"ByteBufferView, 3 bytes at null",
    "vectorForm": rf"ByteBuffer, vector form, {HELLO}",
    "externalForm": r'ByteBuffer, external form, 5 bytes: 68 65 6c 6c 6f "hello"',
    "handedIn": r'ByteBuffer, vector form, 1 byte: 68 "h"',
    "empty": r"ByteBuffer, vector form, empty",
    "inVector": rf"ByteBufferIterator, vector form, {AT}: 0x68 'h'",
    "inView": rf"ByteBufferIterator, pointer form, {AT}: 0x65 'e'",
    "streamed": r"ByteStreamIterator, 0x68 'h'",
    "character": r"ByteStreamCharIterator, 0x68 'h'",
    "streamEnd": r"ByteStreamIterator, end",
    "payload": rf"GenericPayload, 3 elements = \{{\[type {ID}, Price\] = \{{cents = 1999\}}, "
    rf"\[type {ID}, int\] = 42, \[type {ID}\] = null\}}",
    "moved": r"GenericPayload, 0 elements, elementCount 2",
    "source": r"stop_source, stop requested",
    "token": r"stop_token, stop requested",
    "noSource": r"stop_source, no stop state",
    "serialiser": r'GenericSerialiser, calls .*writePrice\(.*\), stop requested, text "a text"',
    "deserialiser": rf"GenericDeserialiser, {READS}",
    "deferred": r"DeferredSerialiser, empty",
    "record": rf"Serialiser, {JSON}",
    "*sentinel._M_ptr": r"Sentinel, not released",
    "released": r"Sentinel, released",
    "serialisers": r'.*\{GenericSerialiser, calls .*makeWriter.*, no stop state, text ""\}',
    "catalogue": r"Catalogue, 2 serialisers, 1 deserialiser = "
    rf'\{{Serialiser, {JSON}, Serialiser, {TEXT}, Deserialiser, "text", type {ID}, {READS}\}}',
}
namespace = "courier::hub::serialisation::"
of_garbage = [
    *(
        namespace + name
        for name in (
            "ByteBuffer ByteBufferView ByteBufferIterator<std::byte> ByteStreamIterator "
            "ByteStreamCharIterator Sentinel GenericSerialiser GenericDeserialiser "
            "DeferredSerialiser Serialiser Deserialiser Catalogue"
        ).split()
    ),
    "courier::hub::core::GenericPayload",
    "bedrock::concurrent::threadpool::stop_source",
]

failures = 0


def check(what, holds, output):
    global failures
    if not holds:
        failures += 1
        print(f"FAILED: {what} shows as\n  {output}")


def ask(expression):
    try:
        output = gdb.execute(f"output {expression}", to_string=True)
    except gdb.error as error:
        output = f"error: {error}"
    return output


gdb.execute("set confirm off")
gdb.execute("set print elements 200")
gdb.execute("set disable-randomization off")  # asks for a right that containers refuse
gdb.execute("break look")
try:
    gdb.execute("run")
except gdb.error as error:
    if "ptrace" not in str(error):
        raise
    print(f"SKIPPED: {error}")
    sys.stdout.flush()
    os._exit(77)

try:
    gdb.lookup_type(namespace + "Catalogue::Records")
except gdb.error:  # the library was stripped, and a user's file need not have the whole class
    shown["catalogue"] = "Catalogue, <no debug information for the library>|<incomplete type>"
    of_garbage.remove(namespace + "Catalogue")
gdb.execute("up")
for expression, pattern in shown.items():
    output = ask(expression)
    check(expression, re.fullmatch(pattern, output, re.DOTALL), output)

fills = 0
while gdb.selected_inferior().pid != 0:
    for name in of_garbage:
        output = ask(f"*('{name}'*)garbage")
        basic = name.split("<")[0].split("::")[-1]
        good = output.startswith(basic + ", ") and len(output) < 1000
        if fills > 1 and "Deserialiser" != basic[-12:] and basic != "DeferredSerialiser":
            good = good and re.search("not a valid object|not readable|cannot be read", output)
        check(f"{basic} of garbage", good, output)
        check(f"{basic} of garbage", "Python" not in output and "error" not in output, output)
    fills += 1
    gdb.execute("continue")
    if gdb.selected_inferior().pid != 0:
        gdb.execute("up")
check("the number of fills", fills == 5, fills)

print(f"{len(shown)} objects as they should show, {len(of_garbage)} types over garbage")
sys.stdout.flush()
os._exit(1 if failures else 0)
