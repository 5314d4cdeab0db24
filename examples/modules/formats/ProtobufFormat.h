// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_PROTOBUF_FORMAT_H
#define COURIER_EXAMPLES_FORMATS_PROTOBUF_FORMAT_H

#include "examples/modules/formats/ReadLimit.h"
#include "examples/modules/formats/WriteBlock.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <stdexcept>
#include <string>

namespace courier::examples {

/// Writes the message's bytes. They do not mark their end, so a message that is cut between two
/// fields is a valid shorter message.
template <std::derived_from<google::protobuf::MessageLite> Message>
void writeMessage(Message const& message, std::ostream& out,
                  hub::serialisation::stop_token const& stop) {
    std::size_t const size = message.ByteSizeLong();
    if (size > std::numeric_limits<int>::max()) {
        throw std::runtime_error("a message cannot be longer than 2 GiB");
    }
    // The encoder is not exception-safe, so it writes to memory, not to the stream.
    writeBlock(size, out, stop, [&](std::span<std::byte> room) {
        message.SerializeWithCachedSizesToArray(reinterpret_cast<std::uint8_t*>(room.data()));
        return size;
    });
}

/// Reads a message to the end of the stream: in place, if the stream has its bytes in memory.
template <std::derived_from<google::protobuf::MessageLite> Message>
Message readMessage(std::istream& in, ReadBudget budget) {
    using namespace hub::serialisation;
    // An empty element of a list is two bytes, which become an object.
    constexpr std::uint64_t memoryPerByte = 64;
    constexpr std::size_t longest = std::numeric_limits<int>::max();
    auto const inPlace = unread(in);
    ByteBuffer const copied =
        inPlace ? ByteBuffer() : take(in, std::min(budget.left(), longest) + 1);
    ByteBufferView const bytes = inPlace.value_or(ByteBufferView(copied));
    if (bytes.size() > longest) {
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
