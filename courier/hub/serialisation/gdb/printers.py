# SPDX-License-Identifier: Apache-2.0
"""Shows buffers, views, payloads and sentinels in gdb, where it is built against libstdc++.

gdb loads this by itself with the installed library. Anywhere else, `source` it. `print /r` shows an
object as it is stored.

An object may not have been constructed yet, or may have been destroyed. So no length is trusted, and
unreadable memory is reported as such.
"""

import re

import gdb
import gdb.printing

SHOWN_BYTES = 16  # of a buffer
SHOWN_ELEMENTS = 200  # of a payload
LONGEST = 2**63 - 1  # bytes in a buffer


class Garbage(Exception):
    """The memory cannot hold a valid object of this type."""


def memory(address, size):
    return gdb.selected_inferior().read_memory(address, size).tobytes()


def counted(n, noun):
    return f"{n} {noun}" if n == 1 else f"{n} {noun}s"


def content(start, size):
    """The length of a range of bytes, and the first of them."""
    if size > LONGEST:
        raise Garbage
    if size == 0:
        return "empty"
    if start == 0:
        return f"{counted(size, 'byte')} at null"
    try:
        data = memory(start, min(size, SHOWN_BYTES))
    except gdb.error:
        return f"{counted(size, 'byte')} at {start:#x}, which cannot be read"
    more = " ..." if size > SHOWN_BYTES else ""
    text = "".join(chr(b) if 32 <= b < 127 and b not in b'"\\' else "." for b in data)
    return f'{counted(size, "byte")}: {data.hex(" ")}{more} "{text}"{more}'


def vector(value):
    """The size of a std::vector, and the first of its elements."""
    impl = value["_M_impl"]
    start, finish, end = (int(impl[m]) for m in ("_M_start", "_M_finish", "_M_end_of_storage"))
    size = value.type.strip_typedefs().template_argument(0).sizeof
    if not start <= finish <= end or (finish - start) % size or end - start > LONGEST:
        raise Garbage
    n = (finish - start) // size
    return n, [impl["_M_start"][i] for i in range(min(n, SHOWN_ELEMENTS))]


def held_by(shared):
    """The type that a std::shared_ptr<void> was made with, and the object; None if unknown."""
    block = int(shared["_M_refcount"]["_M_pi"])
    table = int.from_bytes(memory(block, 8), "little")  # its symbol names the type
    line = gdb.execute(f"info symbol {table:#x}", to_string=True)
    named = re.match(r"vtable for std::_Sp_counted_\w+<", line)
    if named is None:
        return None, None
    depth, name = 0, ""
    for c in line[named.end() :]:
        depth += (c in "<({") - (c in ">)}")
        if depth < 0 or (c == "," and depth == 0):
            break
        name += c
    name = name.rstrip("* ")
    try:
        held = shared["_M_ptr"].cast(gdb.lookup_type(name).pointer()).dereference()
        held.fetch_lazy()
        return name, held
    except gdb.error:
        return name, None


class Printer:
    """Shows `Type, summary`; a derived class provides the summary."""

    def __init__(self, value):
        references = (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF)
        self.value = value.referenced_value() if value.type.code in references else value

    def to_string(self):
        name = self.value.type.strip_typedefs().name.split("::")[-1]
        try:
            return f"{name}, {self.summary()}"
        except (Garbage, OverflowError):
            return f"{name}, not a valid object"
        except gdb.error as error:
            return f"{name}, not readable: {error}"


class ByteBuffer(Printer):
    def summary(self):
        form = "external" if int(self.value["block_"]) != 0 else "vector"
        start, size, capacity = (
            int(self.value["bytes_"][m]) for m in ("data_", "size_", "capacity_")
        )
        if capacity != 0 and (size > capacity or form == "external"):
            raise Garbage
        return f"{form} form, " + content(start, size)


class ByteBufferView(Printer):
    def summary(self):
        return content(int(self.value["start_"]), int(self.value["length_"]))


class Sentinel(Printer):
    def summary(self):
        # Memory without a valid object may hold neither 0 nor 1.
        released = memory(int(self.value["released_"].address), 1)[0]
        if released > 1:
            raise Garbage
        return "released" if released else "not released"


class GenericPayload(Printer):
    """The elements' type identifiers, and the elements themselves if gdb can tell their type."""

    def elements(self):
        size, values = vector(self.value["values"])
        ids_size, ids = vector(self.value["typeIDs"])
        if ids_size != size:
            raise Garbage
        return size, zip(ids, values)

    def summary(self):
        size, _ = self.elements()
        count = int(self.value["elementCount"])
        return counted(size, "element") + (f", elementCount {count}" if count != size else "")

    def children(self):
        try:
            for i, (identifier, shared) in enumerate(self.elements()[1]):
                address = int(shared["_M_ptr"])
                name, held = held_by(shared) if address != 0 else (None, None)
                shown = f"at {address:#x}" if address != 0 else "null"
                told = f"type {int(identifier):#018x}" + (f", {name}" if name else "")
                yield f"id {i}", told
                yield f"value {i}", shown if held is None else held
        except (Garbage, OverflowError, gdb.error):
            return

    def display_hint(self):
        return "map"


printers = gdb.printing.RegexpCollectionPrettyPrinter("courier_hub_serialisation")
for printer in (ByteBuffer, ByteBufferView, Sentinel, GenericPayload):
    place = "core" if printer is GenericPayload else "serialisation"
    name = printer.__name__
    printers.add_printer(name, f"^courier::hub::{place}::{name}$", printer)
gdb.printing.register_pretty_printer(gdb.current_objfile(), printers, replace=True)
