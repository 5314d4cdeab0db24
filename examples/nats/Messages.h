// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_MESSAGES_H
#define COURIER_EXAMPLES_NATS_MESSAGES_H

#include "examples/nats/Session.h"
#include "examples/program/Text.h"

#include <courier/hub/serialisation/Buffers.h>

#include <nlohmann/json.hpp>
#include <zlib.h>

#include <tuple>

// The messages between a sender and the workers:
//
//     STREAM.RUN.I               element I, with its Label as a header
//     STREAM-reports.RUN.WORKER  what became of some elements: a list of Results
//
// Anyone who may write can send anything. What is not well-formed throws std::exception when it is
// read; whether the rest is true is up to the reader.

namespace courier::examples {

using Json = nlohmann::json;
using Label = std::tuple<std::string, std::uint64_t, std::uint64_t>; // wire format, type, CRC-32
constexpr char labelKey[] = "Courier-Label";

struct Result {
    std::uint64_t element = 0;
    std::uint64_t size = 0;     // bytes that were received
    std::uint64_t crc32 = 0;    // as in the label
    std::uint64_t delivery = 0; // counted from 1
    std::uint64_t time = 0;     // in nanoseconds
    std::string error = {};     // why it cannot be read; empty if it was
};

inline std::uint64_t whole(Json const& number) {
    if (!number.is_number_unsigned()) {
        throw std::runtime_error("a number is negative, fractional or too large");
    }
    return number;
}

inline void to_json(Json& json, Result const& result) {
    auto const& [element, size, crc32, delivery, time, error] = result;
    json = {element, size, crc32, delivery, time, error};
}

inline void from_json(Json const& json, Result& result) {
    result = {whole(json.at(0)), whole(json.at(1)), whole(json.at(2)),
              whole(json.at(3)), whole(json.at(4)), json.at(5).get<std::string>()};
}

/// ASCII without control characters, whatever the text has.
inline std::string ascii(Json const& value) {
    return value.dump(-1, ' ', true, Json::error_handler_t::replace);
}

/// The words of the subject: stream, run, element or worker.
inline std::vector<std::string> wordsOf(natsMsg* message) {
    auto words = split(natsMsg_GetSubject(message), '.');
    if (words.size() != 3 || words[1].size() != 16 ||
        words[1].find_first_not_of("0123456789abcdef") != std::string::npos) {
        throw std::runtime_error("the subject is not that of a run");
    }
    return words;
}

/// The line that names a message that is not well-formed.
inline std::string ignored(std::size_t count, natsMsg* message, std::exception const& error) {
    return "ignored, message " + std::to_string(count) + ": " +
           ascii({natsMsg_GetSubject(message), error.what()}).substr(0, 500);
}

inline std::string_view textOf(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

inline std::uint64_t crc32(hub::serialisation::ByteBufferView bytes) {
    auto const* const data = reinterpret_cast<Bytef const*>(bytes.data());
    return data == nullptr ? 0 : ::crc32_z(0, data, bytes.size());
}

/// Has a copy of the bytes.
inline nats::Message makeElement(std::string const& subject, Label const& label,
                                 hub::serialisation::ByteBufferView bytes) {
    natsMsg* message = nullptr;
    auto const* const data = reinterpret_cast<char const*>(bytes.data());
    natsMsg_Create(&message, subject.c_str(), nullptr, data, static_cast<int>(bytes.size()));
    nats::Message owner(message);
    if (natsMsgHeader_Set(message, labelKey, ascii(label).c_str()) != NATS_OK) {
        throw std::bad_alloc();
    }
    return owner;
}

inline Label labelOf(natsMsg* message) {
    char const* label = nullptr;
    if (natsMsgHeader_Get(message, labelKey, &label) != NATS_OK) {
        throw std::runtime_error("there is no header " + std::string(labelKey));
    }
    auto const json = Json::parse(label);
    return {json.at(0), whole(json.at(1)), whole(json.at(2))};
}

inline std::vector<Result> resultsOf(natsMsg* message) {
    if (textOf(message).size() > std::size_t{1} << 20) {
        throw std::runtime_error("it is too long for a report");
    }
    return Json::parse(textOf(message)).get<std::vector<Result>>();
}

} // namespace courier::examples

#endif
