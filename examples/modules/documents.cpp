// SPDX-License-Identifier: Apache-2.0
// The module of the element type Document.

#include "examples/modules/elements/Document.h"
#include "examples/modules/formats/ReadLimit.h"
#include "examples/modules/formats/WriteBlock.h"

#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <cstdint>
#include <istream>
#include <limits>
#include <ostream>
#include <span>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace courier::examples {

namespace {

using Json = nlohmann::json;
using hub::serialisation::stop_token;

// Encoders, decoders and comparisons recurse into a document: the stack sets the limit.
constexpr std::size_t deepestNesting = 500;

// What a value takes: its place in an array, which may be held twice while the array grows, and
// again while the document is destroyed. A text or a container takes a block of its own as well,
// and a text is held up to three times while it is read.
constexpr std::uint64_t perValue = 4 * sizeof(Json);
constexpr std::uint64_t perBlock = 64;
constexpr std::uint64_t perTextByte = 2;
constexpr std::uint64_t perByteRead = 3;

// The exceptions of nlohmann-json are classes of this module: see Module.h. Their messages begin
// with an identifier in brackets.
[[noreturn]] void throwStandard(nlohmann::detail::exception const& error) {
    std::string const message = error.what();
    throw std::runtime_error(message.substr(message.find("] ") + 2));
}

// Builds a document from the events of a decoder. The decoders trust what the bytes claim, such as
// a million nulls in ten bytes, or a million nested arrays. The limits are enforced here.
class Builder final : public nlohmann::json_sax<Json> {
public:
    explicit Builder(ReadBudget budget) : budget_(budget) {}

    [[nodiscard]] Json take() { return std::move(root_); }

    // Whether the next byte is the first of a value or key; true once for each.
    [[nodiscard]] bool takeStart() { return std::exchange(isAtStart_, false); }

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(value); }
    bool number_unsigned(number_unsigned_t value) override { return add(value); }
    bool number_float(number_float_t value, string_t const&) override { return add(value); }
    bool string(string_t& value) override {
        budget_.spend(perBlock + perTextByte * value.size());
        return add(std::move(value));
    }
    bool binary(binary_t& value) override {
        budget_.spend(perBlock + perTextByte * value.size());
        return add(std::move(value));
    }
    bool start_object(std::size_t size) override { return open(Json::object(), size); }
    bool start_array(std::size_t size) override { return open(Json::array(), size); }
    bool key(string_t& name) override {
        budget_.spend(perBlock + sizeof(Json::object_t::value_type) + perTextByte * name.size());
        member_ = &(*open_.back())[std::move(name)];
        isAtStart_ = true;
        return true;
    }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool parse_error(std::size_t, std::string const&,
                     nlohmann::detail::exception const& error) override {
        throwStandard(error);
    }

private:
    bool add(Json value) {
        put(std::move(value));
        return true;
    }
    bool open(Json container, std::size_t claimed) {
        // Ten bytes can claim a million values, which take no bytes themselves.
        if (claimed != unknownSize && claimed > budget_.left() / perValue) {
            budget_.spend(budget_.left() + 1);
        }
        budget_.spend(perBlock);
        if (open_.size() == deepestNesting) {
            throw std::runtime_error("it is nested more than " + std::to_string(deepestNesting) +
                                     " levels deep");
        }
        open_.push_back(&put(std::move(container)));
        return true;
    }
    bool close() {
        open_.pop_back();
        isAtStart_ = true;
        return true;
    }

    Json& put(Json value) {
        budget_.spend(perValue);
        isAtStart_ = true;
        if (open_.empty()) {
            return root_ = std::move(value);
        }
        if (open_.back()->is_array()) {
            return open_.back()->emplace_back(std::move(value));
        }
        return *member_ = std::move(value);
    }

    static constexpr auto unknownSize = std::numeric_limits<std::size_t>::max();

    ReadBudget budget_;
    bool isAtStart_ = true;
    Json root_;
    std::vector<Json*> open_; // stays valid: nothing is added to a container around an open one
    Json* member_ = nullptr;  // of the innermost object, once its key is read
};

// Counts the bytes that a decoder reads, to enforce two limits that the events come too late for:
//
// - The event of a text comes when the whole text has been read. An endless one would fill the
//   memory.
// - The CBOR decoder recurses for each piece of a string of indefinite length, and a piece may be
//   such a string again: a few kilobytes overflow the stack. Nothing here writes such strings, so
//   none is read.
class GuardedSource final : public std::streambuf {
public:
    GuardedSource(std::streambuf& source, Builder& builder, ReadBudget budget, bool isCbor)
        : source_(source), builder_(builder), whole_(budget), left_(budget), isCbor_(isCbor) {}

protected:
    int_type underflow() override { return source_.sgetc(); }
    int_type uflow() override {
        int_type const byte = source_.sbumpc();
        if (builder_.takeStart()) {
            if (isCbor_ && (byte == 0x5F || byte == 0x7F)) {
                throw std::runtime_error("strings of indefinite length are not supported");
            }
            left_ = whole_;
        }
        left_.spend(perByteRead);
        return byte;
    }

private:
    std::streambuf& source_;
    Builder& builder_;
    ReadBudget whole_;
    ReadBudget left_; // for the bytes since the start of a value or key
    bool isCbor_;
};

Document read(std::istream& in, Json::input_format_t format, ReadBudget budget) {
    Builder builder(budget);
    GuardedSource source(*in.rdbuf(), builder, budget, format == Json::input_format_t::cbor);
    std::istream guarded(&source);
    // Some decoders return false instead of reporting an error.
    if (!Json::sax_parse(guarded, &builder, format)) {
        throw std::runtime_error("the data ends too early");
    }
    return Document{builder.take()};
}

// The encoders write single bytes, so they write to memory, not to the stream.
void writeBytes(auto const& encoded, std::ostream& out, stop_token const& stop) {
    writeAll(std::as_bytes(std::span(encoded)), out, stop);
}

struct WireFormat {
    char const* name;
    Json::input_format_t input;
    void (*write)(Json const& value, std::ostream& out, stop_token const& stop);
};

constexpr WireFormat wireFormats[] = {
    {"json", Json::input_format_t::json,
     [](Json const& value, auto&... to) { writeBytes(value.dump(), to...); }},
    {"cbor", Json::input_format_t::cbor,
     [](Json const& value, auto&... to) { writeBytes(Json::to_cbor(value), to...); }},
    {"msgpack", Json::input_format_t::msgpack,
     [](Json const& value, auto&... to) { writeBytes(Json::to_msgpack(value), to...); }},
    {"bson", Json::input_format_t::bson,
     [](Json const& value, auto&... to) {
         if (!value.is_object()) {
             throw std::runtime_error(std::string("BSON needs an object at the top, not ") +
                                      value.type_name());
         }
         writeBytes(Json::to_bson(value), to...);
     }},
    {"ubjson", Json::input_format_t::ubjson,
     [](Json const& value, auto&... to) { writeBytes(Json::to_ubjson(value), to...); }},
};

} // namespace

} // namespace courier::examples

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue) {
    using namespace courier::examples;
    using namespace courier::hub::serialisation;
    for (WireFormat const& format : wireFormats) {
        addFormat<Document>(
            catalogue, format.name,
            [format](Document const& document, std::ostream& out, stop_token const& stop) {
                try {
                    format.write(document.value, out, stop);
                } catch (Json::exception const& error) {
                    throwStandard(error);
                }
            },
            limited(catalogue, [format](std::istream& in, ReadBudget budget) {
                return read(in, format.input, budget);
            }));
    }
}
