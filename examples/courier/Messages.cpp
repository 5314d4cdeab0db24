// SPDX-License-Identifier: Apache-2.0
#include "Messages.h"

#include <zlib.h>

#include <algorithm>
#include <charconv>
#include <memory>
#include <stdexcept>
#include <utility>

namespace courier::examples {

using hub::serialisation::ByteBuffer;
using hub::serialisation::ByteBufferView;

namespace {

// One place for the names, as both ends need them.
constexpr char runKey[] = "Courier-Run";
constexpr char elementKey[] = "Courier-Element";
constexpr char wireFormatKey[] = "Courier-Wire-Format";
constexpr char typeKey[] = "Courier-Type";
constexpr char sizeKey[] = "Courier-Size";
constexpr char crc32Key[] = "Courier-CRC32";
constexpr char partKey[] = "Courier-Part";
constexpr char partsKey[] = "Courier-Parts";
constexpr char workerKey[] = "Courier-Worker";
constexpr char deliveryKey[] = "Courier-Delivery";
constexpr char nanosecondsKey[] = "Courier-Nanoseconds";

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

std::string Envelope::what() const {
    auto const number = std::to_string(element);
    return part == 0 ? "element." + number : "part." + number + '.' + std::to_string(part);
}

nats::Message Envelope::toMessage(Place const& place, ByteBufferView bytes) const {
    return Writer(place.subject(run, what()), bytes)
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

nats::Message Result::toMessage(Place const& place) const {
    return Writer(place.subject(run, what()),
                  {reinterpret_cast<std::byte const*>(error.data()), error.size()})
        .set(runKey, run)
        .set(elementKey, element)
        .set(workerKey, worker)
        .set(sizeKey, size)
        .set(crc32Key, crc32)
        .set(deliveryKey, delivery)
        .set(nanosecondsKey, static_cast<std::uint64_t>(time.count()))
        .take();
}

Result Result::of(natsMsg* message) {
    Reader const reader(message);
    return {reader.text(runKey),
            reader.number<std::size_t>(elementKey),
            reader.text(workerKey),
            reader.number<std::uint64_t>(sizeKey),
            reader.number<std::uint32_t>(crc32Key),
            reader.number<std::uint64_t>(deliveryKey),
            std::chrono::nanoseconds(reader.number<std::int64_t>(nanosecondsKey)),
            {natsMsg_GetData(message), static_cast<std::size_t>(natsMsg_GetDataLength(message))}};
}

ByteBuffer adopt(nats::Message message) {
    std::string_view const bytes(natsMsg_GetData(message.get()),
                                 static_cast<std::size_t>(natsMsg_GetDataLength(message.get())));
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
        got += ByteBufferIStreambuf::xsgetn(target + got, count - got); // of the part at hand
    }
    return got;
}

std::uint32_t crc32(std::uint32_t before, ByteBufferView bytes) {
    if (bytes.empty()) {
        return before; // zlib takes null for the wish to begin anew
    }
    return static_cast<std::uint32_t>(
        ::crc32_z(before, reinterpret_cast<Bytef const*>(bytes.data()), bytes.size()));
}

std::size_t room(std::size_t maxPayload, Envelope const& envelope) {
    std::size_t const headers = 1024 + envelope.wireFormat.size(); // with room to spare
    if (maxPayload < 2 * headers) {
        throw std::runtime_error("the server takes no messages above " +
                                 std::to_string(maxPayload) + " bytes");
    }
    return maxPayload - headers;
}

} // namespace courier::examples
