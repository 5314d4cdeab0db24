// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_CODING_H
#define COURIER_EXAMPLES_PROGRAM_CODING_H

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Serialisers.h>

#include <exception>
#include <istream>
#include <stdexcept>
#include <streambuf>
#include <system_error>

namespace courier::examples {

/// The sender's side: writes one element. The serialiser is destroyed with the call and, with the
/// last one, the payload. Throws what the serialiser throws; see wasStopped().
[[nodiscard]] inline hub::serialisation::ByteBuffer
encode(hub::serialisation::GenericSerialiser serialise) {
    hub::serialisation::ByteBufferOStream out;
    serialise(out);
    return out.release();
}

/// Whether this is the exception of a write that was stopped.
[[nodiscard]] inline bool wasStopped(std::exception const& error) noexcept {
    auto const* const failure = dynamic_cast<std::system_error const*>(&error);
    return failure != nullptr && failure->code() == std::errc::operation_canceled;
}

/// The receiver's side: reads the source to its end. Throws what the deserialiser and the source
/// throw, std::runtime_error if bytes are left over.
[[nodiscard]] inline hub::core::GenericPayload
decode(hub::serialisation::GenericDeserialiser const& deserialise, std::streambuf& source) {
    std::istream in(&source);
    in.exceptions(std::ios::badbit); // lets exceptions of the source through
    hub::core::GenericPayload payload = deserialise(in);
    if (source.sgetc() != std::streambuf::traits_type::eof()) {
        throw std::runtime_error("bytes are left over");
    }
    return payload;
}

} // namespace courier::examples

#endif
