// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_PROTOBUF_FORMAT_H
#define COURIER_EXAMPLES_FORMATS_PROTOBUF_FORMAT_H

#include "examples/formats/ReadLimit.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <google/protobuf/message_lite.h>

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// Writes the message's bytes. They do not mark their end, so a message that is cut between two
/// fields is a valid shorter message.
template <std::derived_from<google::protobuf::MessageLite> Message>
void writeMessage(Message const& message, std::ostream& target,
                  hub::serialisation::stop_token const& stop) {
    std::size_t const size = message.ByteSizeLong();
    if (size > std::numeric_limits<int>::max()) {
        throw std::runtime_error("a message cannot be longer than 2 GiB");
    }
    // The encoder is not exception-safe, so it writes to memory, not to the stream.
    hub::serialisation::ByteBuffer bytes(size);
    if (!message.SerializePartialToArray(bytes.data(), static_cast<int>(size))) {
        throw std::runtime_error("the message cannot be written");
    }
    hub::serialisation::StoppableOStream out(stop, target);
    out.write(reinterpret_cast<char const*>(bytes.data()), static_cast<std::streamsize>(size));
}

/// The bytes up to the end of a stream that does not have them in memory.
inline hub::serialisation::ByteBuffer readAll(std::istream& in, ReadBudget& budget) {
    hub::serialisation::ByteBufferOStream all;
    std::array<char, 65536> piece;
    while (in.read(piece.data(), piece.size()), in.gcount() > 0) {
        budget.spend(static_cast<std::uint64_t>(in.gcount()));
        all.write(piece.data(), in.gcount());
    }
    return all.release();
}

/// Reads a message to the end of the stream: in place, if the stream has its bytes in memory.
template <std::derived_from<google::protobuf::MessageLite> Message>
Message readMessage(std::istream& in, ReadBudget budget) {
    using namespace hub::serialisation;
    auto const inPlace = unread(in);
    ByteBuffer const copied = inPlace ? ByteBuffer() : readAll(in, budget);
    ByteBufferView const bytes = inPlace.value_or(ByteBufferView(copied));
    // An empty element of a list is two bytes, which become an object.
    constexpr std::uint64_t memoryPerByte = 64;
    if (bytes.size() > std::numeric_limits<int>::max()) {
        throw std::runtime_error("a message cannot be longer than 2 GiB");
    }
    budget.spend(bytes.size() * memoryPerByte);
    Message message;
    if (!message.ParsePartialFromArray(bytes.data(), static_cast<int>(bytes.size()))) {
        throw std::runtime_error("the data is not a valid " + message.GetTypeName() +
                                 ", damaged, or ends too early");
    }
    if (!message.IsInitialized()) {
        throw std::runtime_error("the data lacks " + message.InitializationErrorString());
    }
    if (inPlace) {
        skip(in, bytes.size());
    }
    return message;
}

/// Registers a generated message type as "protobuf".
///
/// A module whose messages have descriptors (without `optimize_for = LITE_RUNTIME`) must never be
/// unloaded. Link libprotobuf dynamically, as modules and program pass messages to each other.
template <std::derived_from<google::protobuf::MessageLite> Message>
void registerMessage(hub::serialisation::Catalogue& catalogue) {
    hub::serialisation::addFormat<Message>(catalogue, "protobuf", writeMessage<Message>,
                                           limited(catalogue, readMessage<Message>));
}

} // namespace courier::examples

#endif
