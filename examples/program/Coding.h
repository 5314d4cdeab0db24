// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_CODING_H
#define COURIER_EXAMPLES_PROGRAM_CODING_H

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Serialisers.h>

#include <exception>
#include <streambuf>

namespace courier::examples {

/// The sender's side: writes one element. The serialiser is destroyed with the call and, with the
/// last one, the payload. Throws what the serialiser throws; see wasStopped().
[[nodiscard]] hub::serialisation::ByteBuffer
encode(hub::serialisation::GenericSerialiser serialise);

/// Whether this is the exception of a write that was stopped.
[[nodiscard]] bool wasStopped(std::exception const& error) noexcept;

/// The receiver's side: reads the source to its end. Throws what the deserialiser and the source
/// throw, std::runtime_error if bytes are left over.
[[nodiscard]] hub::core::GenericPayload
decode(hub::serialisation::GenericDeserialiser const& deserialise, std::streambuf& source);

} // namespace courier::examples

#endif
