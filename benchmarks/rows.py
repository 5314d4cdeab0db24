# SPDX-License-Identifier: Apache-2.0
"""The rows of the table: what they compare, and their goals."""
import math
import pathlib

# The standard headers that each public header cannot do without: for the types in its signatures, of
# its bases and of its members.
MODEL = (
    "atomic chrono condition_variable cstdint functional iosfwd memory mutex shared_mutex "
    "string string_view typeinfo utility vector"
)
CONTRACTS = {
    "courier/hub/serialisation/Buffers.h": "compare concepts cstddef functional iterator memory type_traits utility vector",
    "courier/hub/serialisation/Streams.h": "compare cstddef functional iterator memory optional streambuf utility vector",
    "courier/hub/serialisation/SharedPayload.h": "chrono condition_variable cstdint functional memory mutex string_view typeinfo vector",
    "courier/hub/serialisation/Serialisers.h": MODEL,
    "courier/hub/serialisation/Catalogue.h": MODEL,
    "courier/hub/serialisation/FanOut.h": MODEL,
    "courier/hub/core/GenericPayload.h": "cstdint functional memory string_view typeinfo vector",
    "courier/hub/core/TypeID.h": "cstdint string_view type_traits",
    "bedrock/concurrent/threadpool/stop_token.h": "array atomic condition_variable cstdint memory mutex",
    "bedrock/core/diag/terminate.h": "string",
}

# The rows of the front page, with titles that need no context.
FRONT = {
    "adopt/4096/courier": "adopt a received block and free it",
    "move/4096/courier": "move a buffer",
    "append16/65536/courier": "append pieces of 16 B up to 64 KiB",
    "append256/1048576/courier": "append pieces of 256 B up to 1 MiB",
    "fragmented_append256/1048576/courier": "the same in a fragmented heap",
    "zeroed/67108864/courier": "a buffer of 64 MiB of zeroes",
    "read/64/courier": "open a stream and read 64 B",
    "read/1048576/courier": "open a stream and read 1 MiB",
    "getline/65536/courier": "getline() over 64 KiB",
    "numbers/65536/courier": "read numbers with >> from 64 KiB",
    "byte_stream/65536/courier": "read one byte from a ByteStream",
    "write_cbor/65536/courier": "write 64 KiB of CBOR and take the bytes",
    "O2_sum/65536/courier_vector_form": "loop over 64 KiB, g++ -O2",
    "O2_find/65536/courier_vector_form": "std::find in 64 KiB, g++ -O2",
    "O2_construct/65536/courier_vector_form": "vector from a buffer of 64 KiB, g++ -O2",
    "O2_construct/65536/courier_span": "vector from a span of a buffer, g++ -O2",
    "has/256/courier": "hasDeserialiserFor() among 256 records",
    "has/100000/courier": "hasDeserialiserFor() among 100,000 records",
    "scaling/256/courier": "look-ups on two threads, compared with one",
    "get_record/256/courier": "getSerialiserFor() a record among 256",
    "get_for_view/256/courier": "getSerialiserFor() a view among 256 records",
    "fan_out/1/courier": "fan out a payload of one element",
    "fan_out/10000/courier": "fan out 10,000 elements, for each",
    "bytes/1000000/courier": "memory of a serialiser in a fan-out",
    "layer/10000/courier": "addFormat() and fan-out, for each element",
    "type_id/0/courier": "getTypeID()",
    "road_encode/65536/courier": "encode 64 KiB by a catalogue",
    "road_decode/65536/courier": "adopt and decode 64 KiB by a catalogue",
    "include/courier/hub/serialisation/Buffers.h/courier": "compile a file that includes Buffers.h",
    "include/courier/hub/serialisation/Catalogue.h/courier": "compile a file that includes Catalogue.h",
}

LABELS = {
    "courier_view": "a view",
    "hand": "factories by hand",
    "zmq": "zmq_msg",
    "cord": "absl::Cord",
    "multi_index": "Boost.MultiIndex",
    "deep_copy": "deep copies",
    "boost": "Boost.Iostreams",
    "flat_hash_map": "absl::flat_hash_map",
    "hash": "run-time hash",
    "typeid": "typeid().hash_code",
    "ostringstream_copy": "the same copied",
    "std": "standard headers",
    "shared_mutex": "the lock alone",
}


def label(who):
    return LABELS.get(who, who)


# Goals: each is a text and a function of the figures and the row, whose result is 1 or more if the goal
# is reached.


def faster(factor, *peers):
    return (
        f"{factor:g}× {', '.join(map(label, peers))}",
        lambda f, row: min(row.ratio(f, peer) for peer in peers) / factor,
    )


def within(factor, peer):
    return f"within {factor:g}× {label(peer)}", lambda f, row: factor * row.ratio(f, peer)


def at_most(text, bound):
    return text, lambda f, row: bound(f) / f[row.ours]["value"]


def allocations(limit, text):
    return text, lambda f, row: 1 if f[row.ours]["allocations"] <= limit + 1e-3 else 0


def value(name, factor=1.0, plus=0.0):
    return lambda f: factor * f[name]["value"] + plus


class Row:
    """Ours and its peers; `unit` is what the figures are in, and more is better for "×"."""

    def __init__(self, title, work, peers, *goals, ours="courier", unit="ns"):
        self.title, self.work, self.unit, self.goals = title, work, unit, goals
        self.peers, self.ours, self.limit = peers.split(), f"{work}/{ours}", f"{work}/limit"

    def ratio(self, f, other):
        """How many times better ours is than the other."""
        ours, theirs = f[self.ours]["value"], f[f"{self.work}/{other}"]["value"]
        if self.unit == "×":
            return ours / theirs
        return theirs / ours if ours else math.inf

    def best(self, f):
        return min(self.peers, key=lambda peer: self.ratio(f, peer), default=None)


def bytes_text(n):
    return f"{n >> 20} MiB" if n >= 1 << 20 else f"{n >> 10} KiB" if n >= 1024 else f"{n} B"


def all_rows(compiler):
    """The rows of the table, by groups."""
    streams, ordered = "ispanstream istringstream boost", "multi_index map"
    locked = f"{ordered} flat_hash_map"
    records, sizes = (16, 256, 4096, 100000), (1024, 65536, 4194304)
    forms = ("vector_form", "external_form", "view", "span")
    no_allocation = allocations(0, "no allocation")

    def walk(level, operation, form):
        goals = {
            "O2_sum": (0.7, "pointer"),
            "O2_find": (None, "pointer"),
            "O2_equal": (None, "pointer"),
        }
        factor, peer = goals.get(f"{level}_{operation}", (None, "limit"))
        factor = 1 if form == "span" else factor
        if operation == "construct" and form.endswith("form"):
            factor, peer = 1 / 1.2, "courier_view"
        peers = "pointer vector" + " courier_view" * (peer == "courier_view")
        return Row(
            f"{operation}, {form.replace('_', ' ')}, {compiler} -{level}",
            f"{level}_{operation}/65536",
            peers,
            *([faster(factor, peer)] if factor else []),
            ours=f"courier_{form}",
        )

    def counted(title, work, peers, *goals):
        """Two rows, of which the second is shown where the benchmark counts its instructions."""
        return (
            Row(title, work, peers, *goals),
            Row("… in instructions", f"instructions/{work}", peers, unit=""),
        )

    return {
        "Buffers": [
            *counted(
                "adopt a block and destroy it",
                "adopt/4096",
                "shared_ptr zmq cord",
                faster(3, "shared_ptr", "zmq", "cord"),
                no_allocation,
            ),
            *counted(
                "move a buffer, assigning", "move/4096", "zmq", faster(2, "zmq"), no_allocation
            ),
            *counted(
                "move a buffer, constructing",
                "move_construct/4096",
                "zmq",
                faster(2.5, "zmq"),
                no_allocation,
            ),
            *(
                Row(
                    f"append {piece} B pieces up to {bytes_text(n)}",
                    f"append{piece}/{n}",
                    "vector string cord",
                    faster(factor if n > 4096 else 1, "vector"),
                )
                for piece, factor in ((16, 1.2), (256, 1.5))
                for n in (4096, 65536, 1048576)
            ),
            Row(
                "… among all the other benchmarks", "fragmented_append256/1048576", "vector string"
            ),
            Row(
                "… in a process that never freed a large block",
                "cold_append256/1048576",
                "vector string",
                faster(10, "vector"),
            ),
            Row("64 MiB of value 0", "zeroed/67108864", "vector", faster(20, "vector")),
        ],
        "Streams": [
            *(
                row
                for n in (64, 4096, 1048576, 268435456)
                for row in counted(
                    f"open and read {bytes_text(n)}",
                    f"read/{n}",
                    streams,
                    within(1.1, "ispanstream"),
                    faster(10 if n > 1 << 20 else 2, "istringstream"),
                    *([faster(0.95, "limit")] if n >= 1 << 20 else []),
                )
            ),
            *(
                Row(f"{title}, 64 KiB", f"{work}/65536", streams, within(1.1, "ispanstream"))
                for work, title in (
                    ("getline", "getline"),
                    ("numbers", ">> of numbers"),
                    ("sbumpc", "sbumpc"),
                )
            ),
            Row(
                "a byte from a ByteStream",
                "byte_stream/65536",
                "istreambuf_iterator",
                at_most("4.5 ns", lambda f: 4.5),
            ),
            Row(
                "… whose source is known",
                "byte_stream/65536",
                "istreambuf_iterator",
                at_most("0.7 ns", lambda f: 0.7),
                ours="courier_concrete",
            ),
            *(
                row
                for n in sizes
                for row in counted(
                    f"write {bytes_text(n)} of CBOR and take it",
                    f"write_cbor/{n}",
                    "ostringstream ostringstream_copy vector",
                    faster(1, "ostringstream", "ostringstream_copy"),
                )
            ),
        ],
        "Walking over 64 KiB": [
            walk(level, operation, form)
            for level, operations in (("O2", "sum find equal construct"), ("O3", "copy construct"))
            for operation in operations.split()
            for form in forms
        ],
        "Catalogue": [
            *(
                row
                for n, factor in zip(records, (None, 2.5, 3, 5))
                for row in counted(
                    f"hasDeserialiserFor, {n:,} records",
                    f"has/{n}",
                    locked,
                    no_allocation,
                    *([faster(factor, *ordered.split())] if factor else []),
                    faster(1, "flat_hash_map"),
                )
            ),
            *(
                Row(
                    f"two threads against one, {n:,} records",
                    f"scaling/{n}",
                    f"{locked} shared_mutex",
                    ("1.7×", lambda f, row: f[row.ours]["value"] / 1.7),
                    unit="×",
                )
                for n in records
            ),
            *(
                row
                for n in records
                for row in counted(
                    f"getSerialiserFor, a record of {n:,}",
                    f"get_record/{n}",
                    locked,
                    at_most("search + 110 ns", value(f"has/{n}/courier", plus=110)),
                    allocations(1, "1 allocation"),
                )
            ),
            Row(
                "the same, long name, large factories",
                "get_heavy_record/1",
                "",
                allocations(5, "5 allocations"),
            ),
            *(
                row
                for n in records
                for row in counted(
                    f"getSerialiserFor a view, {n:,} records",
                    f"get_for_view/{n}",
                    locked,
                    at_most(
                        "search + factory",
                        lambda f, n=n: f[f"has/{n}/courier"]["value"]
                        + f[f"factory/{n}/courier"]["value"],
                    ),
                )
            ),
        ],
        "Fan-out: create and destroy a serialiser for each element": [
            *(
                Row(
                    f"{n:,} element{'s' * (n > 1)}",
                    f"fan_out/{n}",
                    "shared_ptr deep_copy",
                    within(1.7, "shared_ptr")
                    if n <= 10000
                    else at_most("linear: 2× that of 10,000", value("fan_out/10000/courier", 2)),
                    allocations(1 + 3 / n, "1 allocation, and 3 in all"),
                )
                for n in (1, 100, 10000, 1000000)
            ),
            Row("addFormat: make, fan out and write 10,000 elements", "layer/10000", "hand"),
            Row(
                "… in instructions",
                "instructions/layer/10000",
                "hand",
                within(1.02, "hand"),
                unit="",
            ),
            Row(
                "memory, 1,000,000 elements",
                "bytes/1000000",
                "shared_ptr deep_copy",
                at_most("linear: 1.1× that of 10,000", value("bytes/10000/courier", 1.1)),
                unit="B",
            ),
        ],
        "Type identifier": [
            *counted(
                "getTypeID",
                "type_id/0",
                "typeid hash",
                ("an immediate operand", lambda f, row: f["immediate"]["value"]),
            )
        ],
        "The whole path: a CBOR codec": [
            *(
                row
                for title, work, peers, goals in (
                    ("encode", "road_encode", "ostringstream vector", [faster(1, "ostringstream")]),
                    ("adopt and decode", "road_decode", "vector", [within(1.05, "vector")]),
                    ("encode, adopt, decode", "road", "vector", []),
                )
                for n in sizes
                for row in counted(f"{title} {bytes_text(n)}", f"{work}/{n}", peers, *goals)
            )
        ],
        "Including one header": [
            Row(pathlib.Path(header).name, f"include/{header}", "std", within(1.2, "std"))
            for header in CONTRACTS
        ],
    }
