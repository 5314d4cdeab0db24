// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_COMMON_CODING_H
#define COURIER_EXAMPLES_COMMON_CODING_H

#include <courier/hub/serialisation/Serialisers.h>
#include <courier/hub/serialisation/Streams.h>

#include <optional>
#include <streambuf>

namespace courier::examples {

/// The sender's side: writes one element into the sink and takes what it holds. Gives nothing when
/// it was stopped. The serialiser goes with the call and, with the last one, the payload. Throws
/// what the serialiser throws, std::runtime_error when the sink takes no more.
[[nodiscard]] std::optional<hub::serialisation::ByteBuffer>
encode(hub::serialisation::GenericSerialiser serialise,
       hub::serialisation::ByteBufferOStreambuf& sink);

/// The receiver's side: reads the source to its end. Throws what the deserialiser and the source
/// throw, std::runtime_error when bytes are left over.
[[nodiscard]] hub::core::GenericPayload
decode(hub::serialisation::GenericDeserialiser const& deserialise, std::streambuf& source);

} // namespace courier::examples

#endif
