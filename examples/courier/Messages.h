// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COURIER_MESSAGES_H
#define COURIER_EXAMPLES_COURIER_MESSAGES_H

#include "Nats.h"

#include <courier/hub/serialisation/Buffers.h>
#include <courier/hub/serialisation/Streams.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ios>
#include <string>
#include <vector>

// What the sender and the workers say to each other. All of it goes through one stream, under
//
//     STREAM.RUN.element.I       element I, or the notice that all its parts are there
//     STREAM.RUN.part.I.K        part K of an element that is too long for one message
//     STREAM.RUN.result.I        what became of element I
//
// The workers share a queue of the elements. Parts are in no queue: whoever takes the notice
// fetches them, so that they all reach the same worker, again after a redelivery.

namespace courier::examples {

/// Where a run takes place.
struct Place {
    nats::Servers servers;
    std::string stream = "courier"; // one word
    int replicas = 3;               // servers that hold each message

    [[nodiscard]] std::string everything() const { return stream + ".>"; }
    [[nodiscard]] std::string elements() const { return stream + ".*.element.*"; }
    [[nodiscard]] std::string all(std::string const& run) const { return subject(run, ">"); }
    [[nodiscard]] std::string results(std::string const& run) const {
        return subject(run, "result.*");
    }
    [[nodiscard]] std::string subject(std::string const& run, std::string const& what) const {
        return stream + '.' + run + '.' + what;
    }
};

/// The queue that the workers share. An element that its worker did not acknowledge in time, or say
/// that it is still at work, goes to another one.
inline constexpr char workers[] = "workers";
inline constexpr std::chrono::seconds workersPatience{10};

/// The headers of an element and of its parts.
struct Envelope {
    std::string run;
    std::size_t element = 0;
    std::string wireFormat;
    std::uint64_t typeID = 0;
    std::uint64_t size = 0;  // of the whole element, in bytes
    std::uint32_t crc32 = 0; // of all its bytes
    std::size_t part = 0;    // from 1 on; 0 in the message of the whole element
    std::size_t parts = 0;   // 0 where the message of the whole element has the bytes

    friend bool operator==(Envelope const&, Envelope const&) = default;

    /// What comes behind the run in its subject, which also tells messages apart.
    [[nodiscard]] std::string what() const;

    /// A message with these headers and a copy of the bytes. Throws std::invalid_argument when the
    /// name of the wire format has control characters; nats::Error.
    [[nodiscard]] nats::Message toMessage(Place const& place,
                                          hub::serialisation::ByteBufferView bytes) const;

    /// Throws std::runtime_error, which names the header that is missing or wrong.
    [[nodiscard]] static Envelope of(natsMsg* message);
};

/// What a worker says of an element.
struct Result {
    std::string run;
    std::size_t element = 0;
    std::string worker;
    std::uint64_t size = 0;     // bytes that were received
    std::uint32_t crc32 = 0;    // of these
    std::uint64_t delivery = 0; // counted from 1 on
    std::chrono::nanoseconds time{};
    std::string error = {}; // why it could not be read; empty where it was

    [[nodiscard]] std::string what() const { return "result." + std::to_string(element); }
    [[nodiscard]] nats::Message toMessage(Place const& place) const;
    [[nodiscard]] static Result of(natsMsg* message);
};

/// The bytes of a message as they lie in it, none of them copied. The buffer owns the message, and
/// destroys it where it would free its block. Null gives an empty buffer.
[[nodiscard]] hub::serialisation::ByteBuffer adopt(nats::Message message);

/// Reads buffers one after the other, each in place, and asks for the next one only when all before
/// it was read.
class PartsIStreambuf : public hub::serialisation::ByteBufferIStreambuf {
public:
    /// `get` is called with 1, 2, ... `parts`; what it throws comes out of the reading call.
    using Get = std::function<hub::serialisation::ByteBuffer(std::size_t part)>;
    PartsIStreambuf(std::size_t parts, Get get);

protected:
    int_type underflow() override;
    std::streamsize xsgetn(char* target, std::streamsize count) override;

private:
    Get get_;
    std::size_t parts_;
    std::size_t read_ = 0;
};

/// Continues the checksum of what came before; begin with 0.
[[nodiscard]] std::uint32_t crc32(std::uint32_t before, hub::serialisation::ByteBufferView bytes);

/// How many bytes of an element fit into a message with its headers. Throws std::runtime_error when
/// the server takes too little for anything.
[[nodiscard]] std::size_t room(std::size_t maxPayload, Envelope const& envelope);

} // namespace courier::examples

#endif
