// SPDX-License-Identifier: Apache-2.0
// The decoders of the example modules on hostile bytes: each reads one element, or throws one of
// the two documented errors, in bounded memory. What was read can be written again.
#include "../tests/Support.h"
#include "Input.h"
#include "examples/formats/ReadLimit.h"
#include "examples/program/Element.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>

#include <sys/resource.h>
#include <unistd.h>

namespace {

using namespace courier::examples;
using namespace tests;
using fuzz::Input;

constexpr std::size_t mebibyte = 1 << 20;

struct Modules {
    Modules() {
        setReadLimit(catalogue, mebibyte);
        for (auto const& entry : std::filesystem::directory_iterator(MODULE_DIR)) {
            loaded.emplace_back(entry.path()).registerIn(catalogue);
        }
    }
    std::vector<Module> loaded;
    Catalogue catalogue;
};
Modules& modules = *new Modules; // never unloaded: the fuzzer reads their counters until the end

template <class T> GenericPayload payloadOf(T value) {
    GenericPayload payload;
    payload.add(std::make_shared<T>(std::move(value)));
    return payload;
}
GenericPayload document() {
    nlohmann::json value{{"list", {nullptr, true, -1, 1.5, 70000, "t\u00e9xt", {{"a", {{}}}}}}};
    value["bytes"] = nlohmann::json::binary({1, 2, 3}, 4);
    return payloadOf(Document{value});
}
GenericPayload blob() {
    auto const bytes = Input(nullptr, 0).fresh(100) + std::string(1000, 'x') + "more of the same";
    return payloadOf(Blob(ByteBuffer(ByteBufferView(bytes + bytes))));
}
GenericPayload listing() {
    Listing value;
    for (char const* const name : {"a name", "another"}) {
        value.add_files()->set_name(name);
    }
    return payloadOf(value);
}
GenericPayload histogram() { return payloadOf(Histogram{"a name", {1, 2, 3}}); }

struct Format {
    char const* name;
    GenericPayload (*sample)();
};
// An input of the corpus begins with the index of its format, so new formats are added at the end.
constexpr Format formats[] = {
    {"json", document},    {"cbor", document},    {"msgpack", document}, {"bson", document},
    {"ubjson", document},  {"raw", blob},         {"deflate", blob},     {"zstd", blob},
    {"protobuf", listing}, {"cereal", histogram},
};

// Limits how much more memory the process may take: addresses, except under the sanitizers, which
// need many, and pages.
class MemoryBound {
public:
    explicit MemoryBound(std::size_t bytes) : bytes_(bytes) {
        std::ofstream("/proc/self/clear_refs") << 5; // what is resident now is the peak
        before_ = peak();
        ::getrlimit(RLIMIT_AS, &old_);
        std::size_t pages = 0;
        std::ifstream("/proc/self/statm") >> pages;
        std::size_t const size = pages * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
        rlimit const bound{size + bytes, old_.rlim_max};
        if (size >> 40 == 0) {
            ::setrlimit(RLIMIT_AS, &bound);
        }
    }
    ~MemoryBound() {
        ::setrlimit(RLIMIT_AS, &old_);
        SAME(peak() - before_ <= bytes_, true);
    }
    MemoryBound(MemoryBound const&) = delete;
    MemoryBound& operator=(MemoryBound const&) = delete;

private:
    static std::size_t peak() {
        rusage usage{};
        ::getrusage(RUSAGE_SELF, &usage);
        return static_cast<std::size_t>(usage.ru_maxrss) << 10;
    }
    std::size_t bytes_;
    std::size_t before_;
    rlimit old_{};
};

struct Bytes {
    std::string all;
    std::size_t beginning = 0; // so many of them aren't repeated
    int repetitions = 0;
};
// Reads the bytes, and then repeats those after the beginning without end.
class Source final : public std::streambuf {
public:
    explicit Source(Bytes& bytes)
        : again_(&bytes.all[bytes.beginning]), end_(bytes.all.data() + bytes.all.size()),
          repetitions_(again_ == end_ ? 0 : bytes.repetitions) {
        setg(bytes.all.data(), bytes.all.data(), end_);
    }

protected:
    int_type underflow() override {
        if (repetitions_-- <= 0) {
            return traits_type::eof();
        }
        setg(again_, again_, end_);
        return traits_type::to_int_type(*again_);
    }

private:
    char* again_;
    char* end_;
    int repetitions_;
};

std::string take(Input& input, std::size_t most) {
    std::string bytes;
    while (input && bytes.size() < most) {
        bytes += static_cast<char>(input.byte());
    }
    return bytes;
}
Bytes damaged(Input& input, Format const& format) {
    Bytes bytes{written(modules.catalogue.getSerialiserFor(format.name, format.sample()))};
    while (input) {
        std::size_t const page = input.byte();
        char& byte = bytes.all[(256 * page + input.byte()) % bytes.all.size()];
        byte = static_cast<char>(static_cast<std::uint8_t>(byte) ^ input.byte());
    }
    return bytes;
}
// More than the read limit where they are in memory, and than the memory bound in a stream.
Bytes repeated(Input& input) {
    std::string const beginning = take(input, input.below(16));
    std::string unit = take(input, mebibyte);
    while (!unit.empty() && unit.size() <= mebibyte) {
        unit += unit;
    }
    return {beginning + unit, beginning.size(), 40};
}

void read(Format const& format, std::istream& in) {
    IDs const ids = format.sample().typeIDs;
    auto const deserialise = modules.catalogue.getDeserialiserFor(format.name, ids.at(0));
    MemoryBound const bound(32 * mebibyte);
    try {
        GenericPayload payload = deserialise(in);
        SAME(payload.typeIDs, ids);
        written(modules.catalogue.getSerialiserFor(format.name, std::move(payload)));
    } catch (std::length_error const& error) {
        SAME(std::strstr(error.what(), "read limit of 1048576 bytes") != nullptr, true);
    } catch (std::runtime_error const& error) {
        SAME(typeid(error) == typeid(std::runtime_error), true);
        SAME(std::strlen(error.what()) > 9, true);
    }
}

} // namespace

// Blocks that are only claimed do not become resident, so the sanitizer refuses them.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c): the sanitizer's own name
extern "C" char const* __asan_default_options();
char const* __asan_default_options() { return "max_allocation_size_mb=32"; }
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c)

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    Format const& format = formats[input.below(std::size(formats))];
    bool const isInMemory = input.flag();
    Bytes bytes;
    input.oneOf(DO(bytes.all = take(input, mebibyte)), DO(bytes = repeated(input)),
                DO(bytes = damaged(input, format)));
    fuzz::place.operation = format.name;
    Source source(bytes);
    std::istream copied(&source);
    ByteBufferIStream inPlace{ByteBufferView(bytes.all)};
    read(format, isInMemory ? inPlace : copied);
    return 0;
}
