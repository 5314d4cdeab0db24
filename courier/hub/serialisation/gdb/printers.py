# SPDX-License-Identifier: Apache-2.0
"""Shows the library's types in gdb, where it is built against libstdc++.

gdb loads this by itself with the installed library. Anywhere else, `source` it. `print /r` shows an
object as it is stored.

An object may not have been constructed yet, or may have been destroyed. So no length is trusted, no
list is followed without a limit, and unreadable memory is reported as such.
"""

import itertools

import gdb
import gdb.printing

SHOWN_BYTES = 16  # of a buffer
SHOWN_ELEMENTS = 200  # of a payload, a list or a catalogue
SHOWN_CHARACTERS = 200  # of a text
LONGEST = 2**63 - 1  # bytes in a buffer


class Garbage(Exception):
    """The memory cannot hold a valid object of this type."""


def memory(address, size):
    return gdb.selected_inferior().read_memory(address, size).tobytes()


def word(address):
    """The eight bytes at an address, as an unsigned number in the process's byte order."""
    pointer = gdb.lookup_type("unsigned long").pointer()
    return int(gdb.Value(address).cast(pointer).dereference())


def plain(value):
    """The object itself if the value is a reference, otherwise the value."""
    references = (gdb.TYPE_CODE_REF, gdb.TYPE_CODE_RVALUE_REF)
    return value.referenced_value() if value.type.code in references else value


def counted(n, noun):
    return f"{n} {noun}" if n == 1 else f"{n} {noun}s"


def quoted(data):
    return '"' + "".join(chr(b) if 32 <= b < 127 and b not in b'"\\' else "." for b in data) + '"'


def character(byte):
    """A byte in hex, and as a character if it is printable."""
    return f"{byte:#04x} '{chr(byte)}'" if 32 <= byte < 127 else f"{byte:#04x}"


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
    return f"{counted(size, 'byte')}: {data.hex(' ')}{more} {quoted(data)}{more}"


def text(string):
    """The content of a std::string, read by address because clang may not describe its members."""
    start, size = word(int(string.address)), word(int(string.address) + 8)
    if size > LONGEST:
        raise Garbage
    shown = quoted(memory(start, min(size, SHOWN_CHARACTERS)))
    return shown + " ..." if size > SHOWN_CHARACTERS else shown


def vector(value):
    """The address of the first element of a std::vector, and the number of elements."""
    impl = value["_M_impl"]
    start, finish, end = (int(impl[m]) for m in ("_M_start", "_M_finish", "_M_end_of_storage"))
    size = value.type.strip_typedefs().template_argument(0).sizeof
    if not start <= finish <= end or (finish - start) % size or end - start > LONGEST:
        raise Garbage
    return start, (finish - start) // size


def elements(value):
    """The first elements of a std::vector."""
    _, size = vector(value)
    first = value["_M_impl"]["_M_start"]
    return [first[i] for i in range(min(size, SHOWN_ELEMENTS))]


def optional(value):
    """The value in a std::optional, or None."""
    payload = value["_M_payload"]
    return payload["_M_payload"]["_M_value"] if flag(payload["_M_engaged"]) else None


def flag(value):
    """A bool. Memory without a valid object may hold neither 0 nor 1."""
    byte = memory(int(value.address), 1)[0]
    if byte > 1:
        raise Garbage
    return byte == 1


def type_id(value):
    return f"{int(value):#018x}"


def symbol(address):
    """The name of the function at an address, or None."""
    line = gdb.execute(f"info symbol {address:#x}", to_string=True)
    return line.split(" in section ")[0] if " in section " in line else None


def arguments(name):
    """The template arguments in a name like `Handler<void (A<B>), C>::invoke(D)`."""
    found, depth, begin = [], 0, 0
    for i, c in enumerate(name):
        if c in "<({":
            depth += 1
            if depth == 1:
                begin = i + 1
        elif c in ">)}":
            depth -= 1
        if (c == "," and depth == 1) or (c in ">)}" and depth == 0):
            found.append(name[begin:i].strip())
            begin = i + 1
            if depth == 0:
                break
    return found


def target(function):
    """What a std::function calls, as far as gdb can tell; None if it is empty."""
    if int(function["_M_manager"]) == 0:
        return None
    invoker = symbol(int(function["_M_invoker"]))
    if invoker is None or "_Function_handler<" not in invoker:
        return "something without a symbol"
    called = arguments(invoker[invoker.index("_Function_handler<") :])[-1]
    if "(*)" in called:
        return symbol(int(function["_M_functor"]["_M_unused"]["_M_function_pointer"])) or called
    return called


def calls(function):
    called = target(function)
    return "empty" if called is None else f"calls {called}"


def stop_state(shared):
    """Describes the state of a stop source or token."""
    state = shared["_M_ptr"]
    if int(state) == 0:
        return "no stop state"
    requested = flag(state["stopRequested"]["_M_base"]["_M_i"])
    return "stop requested" if requested else "no stop requested"


def held_by(shared):
    """The type that a std::shared_ptr<void> was made with, and the object; None if unknown."""
    table = symbol(word(int(shared["_M_refcount"]["_M_pi"])))  # the control block's, which names it
    if table is None or "vtable for std::_Sp_counted_" not in table:
        return None, None
    name = arguments(table)[0].rstrip("*")
    try:
        held = shared["_M_ptr"].cast(gdb.lookup_type(name).pointer()).dereference()
        held.fetch_lazy()
        return name, held
    except gdb.error:
        return name, None


class Printer:
    """Shows `Type, summary`; a derived class provides the summary."""

    def __init__(self, value):
        self.value = plain(value)

    def summary(self):
        raise NotImplementedError

    def to_string(self):
        name = self.value.type.strip_typedefs().name.split("<")[0].split("::")[-1]
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


class ByteBufferIterator(Printer):
    def summary(self):
        position = int(self.value["address_"])
        form = "vector form" if flag(self.value["inVector_"]) else "pointer form"
        if position == 0:
            return "null"
        try:
            return f"{form}, {position:#x}: {character(memory(position, 1)[0])}"
        except gdb.error:
            return f"{form}, {position:#x}, which cannot be read"


class ByteStreamIterator(Printer):
    """Also for the iterator that yields characters: both cache their value."""

    def summary(self):
        current = optional(self.value["current_"])
        return "end" if current is None else character(int(current) & 0xFF)


class Sentinel(Printer):
    def summary(self):
        return "released" if flag(self.value["released_"]) else "not released"


class StopState(Printer):
    def summary(self):
        return stop_state(self.value["state_"])


class GenericSerialiser(Printer):
    def summary(self):
        stop = stop_state(self.value["stopSource_"]["state_"])
        return f"{calls(self.value['routine_'])}, {stop}, text {text(self.value['text_'])}"


class Callable(Printer):
    def summary(self):
        return calls(self.value["routine_"])


class Serialiser(Printer):
    FACTORIES = {
        "view": "viewFactory_",
        "cancellable view": "cancellableViewFactory_",
        "payload": "payloadFactory_",
    }

    def summary(self):
        ids = ", ".join(type_id(i) for i in elements(self.value["typeIDs_"]))
        parts = [
            text(self.value["wireFormat_"]),
            f"type {type_id(self.value['typeID_'])} of [{ids}]",
        ]
        for kind, member in self.FACTORIES.items():
            called = target(self.value[member])
            if called is not None:
                parts.append(f"{kind} factory calls {called}")
        return ", ".join(parts)


class Deserialiser(Printer):
    def summary(self):
        value = self.value
        called = calls(value["deserialiser_"]["routine_"])
        return f"{text(value['wireFormat_'])}, type {type_id(value['typeID_'])}, {called}"


class GenericPayload(Printer):
    """The elements' type identifiers, and the elements themselves if gdb can tell their type."""

    def summary(self):
        _, size = vector(self.value["values"])
        if vector(self.value["typeIDs"])[1] != size:
            raise Garbage
        count = int(self.value["elementCount"])
        told = "" if count == size else f", elementCount {count}"
        return counted(size, "element") + told

    def children(self):
        try:
            self.summary()
            pairs = zip(elements(self.value["typeIDs"]), elements(self.value["values"]))
            for i, (identifier, shared) in enumerate(pairs):
                address = int(shared["_M_ptr"])
                name, held = held_by(shared) if address != 0 else (None, None)
                shown = f"at {address:#x}" if address != 0 else "null"
                yield f"id {i}", f"type {type_id(identifier)}" + (f", {name}" if name else "")
                yield f"value {i}", shown if held is None else held
        except (Garbage, gdb.error):
            return

    def display_hint(self):
        return "map"


class Catalogue(Printer):
    """The records, by type and wire format."""

    KINDS = ("serialisers", "deserialisers")

    def __init__(self, value):
        super().__init__(value)
        self.records = None
        try:
            pointer = self.value["records_"]
            records = pointer.type.strip_typedefs().template_argument(0)
            if not records.fields():  # only declared in the user's files
                records = gdb.lookup_type(records.name)
            place = pointer.address.cast(records.pointer().pointer()).dereference().dereference()
            if records.fields():
                self.records = {kind: self.read(place[kind]["nodes"]) for kind in self.KINDS}
        except (Garbage, gdb.MemoryError):
            self.records = Garbage
        except (gdb.error, TypeError):
            pass

    @staticmethod
    def read(nodes):
        """The records in a container, which the standard library's own printer iterates over."""
        printer = gdb.default_visualizer(nodes)
        if printer is None:
            raise TypeError
        walked = (node for _, node in itertools.islice(printer.children(), SHOWN_ELEMENTS))
        found = [node["record"] for node in walked]
        return sorted(found, key=lambda r: (int(r["typeID_"]), text(r["wireFormat_"])))

    def summary(self):
        if self.records is None:
            return "<no debug information for the library>"
        if self.records is Garbage:
            raise Garbage
        return ", ".join(counted(len(self.records[kind]), kind[:-1]) for kind in self.KINDS)

    def children(self):
        if isinstance(self.records, dict):
            found = itertools.chain(*self.records.values())
            yield from ((f"[{i}]", record) for i, record in enumerate(found))

    def display_hint(self):
        return "array"


def build():
    printers = gdb.printing.RegexpCollectionPrettyPrinter("courier_hub_serialisation")
    namespaces = {
        "courier::hub::serialisation::": {
            "ByteBuffer": ByteBuffer,
            "ByteBufferView": ByteBufferView,
            "ByteBufferIterator<.*>": ByteBufferIterator,
            "ByteStreamIterator": ByteStreamIterator,
            "ByteStreamCharIterator": ByteStreamIterator,
            "Sentinel": Sentinel,
            "GenericSerialiser": GenericSerialiser,
            "GenericDeserialiser": Callable,
            "DeferredSerialiser": Callable,
            "Serialiser": Serialiser,
            "Deserialiser": Deserialiser,
            "Catalogue": Catalogue,
        },
        "courier::hub::core::": {"GenericPayload": GenericPayload},
        "bedrock::concurrent::threadpool::": {"stop_source": StopState, "stop_token": StopState},
    }
    for namespace, types in namespaces.items():
        for name, printer in types.items():
            printers.add_printer(name, f"^{namespace}{name}$", printer)
    return printers


gdb.printing.register_pretty_printer(gdb.current_objfile(), build(), replace=True)
