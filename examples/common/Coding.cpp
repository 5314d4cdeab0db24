// SPDX-License-Identifier: Apache-2.0
#include "Coding.h"

#include <istream>
#include <ostream>
#include <stdexcept>
#include <system_error>

namespace courier::examples {

using namespace hub::serialisation;
using hub::core::GenericPayload;

std::optional<ByteBuffer> encode(GenericSerialiser serialise, ByteBufferOStreambuf& sink) {
    std::ostream out(&sink);
    try {
        serialise(out);
    } catch (std::system_error const& error) {
        if (error.code() == std::errc::operation_canceled) {
            return std::nullopt;
        }
        throw;
    }
    if (!out) {
        throw std::runtime_error("the stream failed");
    }
    return sink.release();
}

GenericPayload decode(GenericDeserialiser const& deserialise, std::streambuf& source) {
    std::istream in(&source);
    in.exceptions(std::ios::badbit); // lets what the source throws through
    GenericPayload payload = deserialise(in);
    if (source.sgetc() != std::streambuf::traits_type::eof()) {
        throw std::runtime_error("bytes are left over");
    }
    return payload;
}

} // namespace courier::examples
