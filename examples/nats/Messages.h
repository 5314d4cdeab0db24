// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_NATS_MESSAGES_H
#define COURIER_EXAMPLES_NATS_MESSAGES_H

#include "examples/nats/Nats.h"

#include <courier/hub/serialisation/Buffers.h>
#include <courier/hub/serialisation/Streams.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <ios>
#include <string>
#include <string_view>
#include <vector>

// The messages between the sender and the workers. Two streams hold them, so that a limit on the
// first never keeps results from being stored:
//
//     STREAM.RUN.element.I               element I, or the notice that all its parts are stored
//     STREAM.RUN.part.I.K                part K of an element that is too long for one message
//     STREAM-results.RUN.report.WORKER.N what became of some elements
//     STREAM-results.RUN.taken.WORKER.N  elements that a worker is about to decode
//
// The second stream also keeps the servers' own notices of elements that were delivered too often.
//
// The workers share a queue of the elements. Parts are in no queue: the worker that takes the
// notice fetches them, and so does the next one after a redelivery.

namespace courier::examples {

/// The stream and its settings. All programs of one stream must have the same.
struct Place {
    nats::Access access;
    std::string stream = "elements"; // a single word
    int replicas = 3;                // servers that hold each message
    std::int64_t maxBytes = -1;      // of the elements in the stream; no limit
    std::int64_t attempts = 5;       // deliveries of one element
    std::chrono::seconds redeliverAfter{10};

    [[nodiscard]] nats::Stream elements() const;
    [[nodiscard]] nats::Stream results() const;

    /// The queue that the workers share. An element is delivered to another worker if its own one
    /// does not answer within `redeliverAfter`.
    [[nodiscard]] nats::Queue workers() const;

    /// A queue for one run: of its reports; of its records of who took what; of the servers'
    /// notices.
    [[nodiscard]] nats::Queue reportsOf(std::string const& run) const;
    [[nodiscard]] nats::Queue takenOf(std::string const& run) const;
    [[nodiscard]] nats::Queue givenUpDuring(std::string const& run) const;

    [[nodiscard]] std::string inElements(std::string const& run, std::string const& what) const {
        return elements().name + '.' + run + '.' + what;
    }
    [[nodiscard]] std::string inResults(std::string const& run, std::string const& what) const {
        return results().name + '.' + run + '.' + what;
    }

private:
    [[nodiscard]] std::string notices() const;
};

/// The headers of an element and of its parts.
struct Envelope {
    std::string run;
    std::size_t element = 0;
    std::string wireFormat;
    std::uint64_t typeID = 0;
    std::uint64_t size = 0;  // of the whole element, in bytes
    std::uint32_t crc32 = 0; // of all its bytes
    std::size_t part = 0;    // from 1; 0 in the message of the whole element
    std::size_t parts = 0;   // 0 if the message of the whole element has the bytes

    friend bool operator==(Envelope const&, Envelope const&) = default;

    /// The end of its subject, after the run.
    [[nodiscard]] std::string what() const;

    /// A message with these headers and a copy of the bytes. Throws std::invalid_argument when the
    /// name of the wire format has control characters; nats::Error.
    [[nodiscard]] nats::Message toMessage(Place const& place,
                                          hub::serialisation::ByteBufferView bytes) const;

    /// Throws std::runtime_error, which names the header that is missing or wrong.
    [[nodiscard]] static Envelope of(natsMsg* message);
};

/// The result of one element.
struct Result {
    std::size_t element = 0;
    std::uint64_t size = 0;     // bytes that were received
    std::uint32_t crc32 = 0;    // of these
    std::uint64_t delivery = 0; // counted from 1
    std::chrono::nanoseconds time{};
    std::string error = {}; // why it cannot be read; empty if it was
};

/// A worker's report on some elements of one run. `id` is unique among the reports of all workers.
struct Report {
    std::string run;
    std::string worker;
    std::vector<Result> results;

    [[nodiscard]] nats::Message toMessage(Place const& place, std::string const& id) const;
    [[nodiscard]] static Report of(natsMsg* message);
};

/// The elements of one run that a worker is about to decode, so that the sender can name the
/// workers that failed on an element.
struct Taken {
    std::string run;
    std::string worker;
    std::vector<std::size_t> elements;

    [[nodiscard]] nats::Message toMessage(Place const& place, std::string const& id) const;
    [[nodiscard]] static Taken of(natsMsg* message);
};

/// The bytes of a message, in place.
[[nodiscard]] std::string_view contentOf(natsMsg* message);

/// A buffer in external form over the bytes of a message, which it owns. Null gives an empty
/// buffer.
[[nodiscard]] hub::serialisation::ByteBuffer adopt(nats::Message message);

/// Reads buffers one after the other, each in place, and gets the next one when the one before has
/// been read.
class PartsIStreambuf : public hub::serialisation::ByteBufferIStreambuf {
public:
    /// `get` is called with 1, 2, ... `parts`; the reading call throws what it throws.
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

/// Continues the checksum of earlier bytes; start with 0.
[[nodiscard]] std::uint32_t crc32(std::uint32_t before, hub::serialisation::ByteBufferView bytes);

/// How many bytes of an element fit into a message with its headers. Throws std::runtime_error if
/// the server takes only messages that are too short for anything.
[[nodiscard]] std::size_t room(std::size_t maxPayload, Envelope const& envelope);

} // namespace courier::examples

#endif
