// SPDX-License-Identifier: Apache-2.0
#include "examples/nats/Messages.h"

#include <nlohmann/json.hpp>
#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace courier::examples {

using hub::serialisation::ByteBuffer;
using hub::serialisation::ByteBufferView;

namespace {

constexpr char runKey[] = "Courier-Run";
constexpr char elementKey[] = "Courier-Element";
constexpr char wireFormatKey[] = "Courier-Wire-Format";
constexpr char typeKey[] = "Courier-Type";
constexpr char sizeKey[] = "Courier-Size";
constexpr char crc32Key[] = "Courier-CRC32";
constexpr char partKey[] = "Courier-Part";
constexpr char partsKey[] = "Courier-Parts";
constexpr char workerKey[] = "Courier-Worker";

class Writer {
public:
    Writer(std::string const& subject, ByteBufferView bytes) {
        natsMsg* made = nullptr;
        nats::require(natsMsg_Create(&made, subject.c_str(), nullptr,
                                     reinterpret_cast<char const*>(bytes.data()),
                                     static_cast<int>(bytes.size())),
                      "make a message");
        message_.reset(made);
    }

    Writer& set(char const* key, std::string const& value) {
        if (std::any_of(value.begin(), value.end(),
                        [](unsigned char c) { return c < ' ' || c == 0x7F; })) {
            throw std::invalid_argument(std::string("control characters in the header ") + key);
        }
        nats::require(natsMsgHeader_Set(message_.get(), key, value.c_str()), "set a header");
        return *this;
    }
    Writer& set(char const* key, std::uint64_t value) { return set(key, std::to_string(value)); }

    nats::Message take() { return std::move(message_); }

private:
    nats::Message message_;
};

class Reader {
public:
    explicit Reader(natsMsg* message) : message_(message) {}

    [[nodiscard]] std::string text(char const* key) const {
        char const* value = nullptr;
        natsStatus const status = natsMsgHeader_Get(message_, key, &value);
        if (status == NATS_NOT_FOUND) {
            throw std::runtime_error(std::string("the message has no header ") + key);
        }
        nats::require(status, std::string("read the header ") + key);
        return value;
    }

    template <class Number> [[nodiscard]] Number number(char const* key) const {
        std::string const value = text(key);
        Number result{};
        auto const [end, error] =
            std::from_chars(value.data(), value.data() + value.size(), result);
        if (error != std::errc{} || end != value.data() + value.size()) {
            throw std::runtime_error(std::string("the header ") + key +
                                     " is no such number: " + value);
        }
        return result;
    }

private:
    natsMsg* message_;
};

} // namespace

nats::Stream Place::elements() const { return {stream, {stream + ".>"}, replicas, maxBytes}; }

nats::Stream Place::results() const {
    std::string const name = stream + "-results";
    return {name, {name + ".>", notices()}, replicas};
}

std::string Place::notices() const {
    return "$JS.EVENT.ADVISORY.CONSUMER.MAX_DELIVERIES." + stream + ".workers";
}

nats::Queue Place::workers() const {
    return {.stream = stream,
            .name = "workers",
            .subject = stream + ".*.element.*",
            .patience = redeliverAfter,
            .attempts = attempts};
}

namespace {

nats::Queue ofOneRun(std::string stream, std::string name, std::string subject) {
    return {.stream = std::move(stream),
            .name = std::move(name),
            .subject = std::move(subject),
            .patience = std::chrono::seconds(5),
            .lifeTime = std::chrono::hours(1)};
}

} // namespace

nats::Queue Place::reportsOf(std::string const& run) const {
    return ofOneRun(results().name, "reports-" + run, inResults(run, "report.>"));
}

nats::Queue Place::takenOf(std::string const& run) const {
    return ofOneRun(results().name, "taken-" + run, inResults(run, "taken.>"));
}

nats::Queue Place::givenUpDuring(std::string const& run) const {
    nats::Queue queue = ofOneRun(results().name, "given-up-" + run, notices());
    queue.isNewOnly = true;
    return queue;
}

std::string Envelope::what() const {
    auto const number = std::to_string(element);
    return part == 0 ? "element." + number : "part." + number + '.' + std::to_string(part);
}

nats::Message Envelope::toMessage(Place const& place, ByteBufferView bytes) const {
    return Writer(place.inElements(run, what()), bytes)
        .set(runKey, run)
        .set(elementKey, element)
        .set(wireFormatKey, wireFormat)
        .set(typeKey, typeID)
        .set(sizeKey, size)
        .set(crc32Key, crc32)
        .set(partKey, part)
        .set(partsKey, parts)
        .take();
}

Envelope Envelope::of(natsMsg* message) {
    Reader const reader(message);
    return {reader.text(runKey),
            reader.number<std::size_t>(elementKey),
            reader.text(wireFormatKey),
            reader.number<std::uint64_t>(typeKey),
            reader.number<std::uint64_t>(sizeKey),
            reader.number<std::uint32_t>(crc32Key),
            reader.number<std::size_t>(partKey),
            reader.number<std::size_t>(partsKey)};
}

nats::Message Report::toMessage(Place const& place, std::string const& id) const {
    auto list = nlohmann::json::array();
    for (Result const& each : results) {
        list.push_back(
            {each.element, each.size, each.crc32, each.delivery, each.time.count(), each.error});
    }
    auto const text = list.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    return Writer(place.inResults(run, "report." + id), ByteBufferView(text))
        .set(runKey, run)
        .set(workerKey, worker)
        .take();
}

Report Report::of(natsMsg* message) {
    Reader const reader(message);
    Report report{reader.text(runKey), reader.text(workerKey), {}};
    for (auto const& each : nlohmann::json::parse(contentOf(message))) {
        report.results.push_back({each.at(0), each.at(1), each.at(2), each.at(3),
                                  std::chrono::nanoseconds(each.at(4)), each.at(5)});
    }
    return report;
}

nats::Message Taken::toMessage(Place const& place, std::string const& id) const {
    std::string text;
    for (std::size_t const element : elements) {
        text += std::to_string(element) + ' ';
    }
    return Writer(place.inResults(run, "taken." + id), ByteBufferView(text))
        .set(runKey, run)
        .set(workerKey, worker)
        .take();
}

Taken Taken::of(natsMsg* message) {
    Reader const reader(message);
    Taken taken{reader.text(runKey), reader.text(workerKey), {}};
    std::istringstream text{std::string(contentOf(message))};
    for (std::size_t element = 0; text >> element;) {
        taken.elements.push_back(element);
    }
    return taken;
}

std::string_view contentOf(natsMsg* message) {
    return {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))};
}

ByteBuffer adopt(nats::Message message) {
    std::string_view const bytes = contentOf(message.get());
    return hub::serialisation::adopt(ByteBufferView(bytes), std::move(message));
}

PartsIStreambuf::PartsIStreambuf(std::size_t parts, Get get)
    : ByteBufferIStreambuf(ByteBufferView()), get_(std::move(get)), parts_(parts) {}

PartsIStreambuf::int_type PartsIStreambuf::underflow() {
    while (gptr() == egptr() && read_ < parts_) {
        auto next = std::make_unique<ByteBuffer>(get_(read_ + 1));
        ++read_;
        ByteBufferIStreambuf::operator=(ByteBufferIStreambuf(std::move(next)));
    }
    return gptr() == egptr() ? traits_type::eof() : traits_type::to_int_type(*gptr());
}

std::streamsize PartsIStreambuf::xsgetn(char* target, std::streamsize count) {
    std::streamsize got = 0;
    while (got < count && !traits_type::eq_int_type(underflow(), traits_type::eof())) {
        got += ByteBufferIStreambuf::xsgetn(target + got, count - got); // of the present part
    }
    return got;
}

std::uint32_t crc32(std::uint32_t before, ByteBufferView bytes) {
    if (bytes.empty()) {
        return before; // zlib starts a new checksum if given null
    }
    return static_cast<std::uint32_t>(
        ::crc32_z(before, reinterpret_cast<Bytef const*>(bytes.data()), bytes.size()));
}

std::size_t room(std::size_t maxPayload, Envelope const& envelope) {
    std::size_t const headers = 1024 + envelope.wireFormat.size(); // with some reserve
    if (maxPayload < 2 * headers) {
        throw std::runtime_error("the server takes no messages above " +
                                 std::to_string(maxPayload) + " bytes");
    }
    return maxPayload - headers;
}

} // namespace courier::examples
