// SPDX-License-Identifier: Apache-2.0
#include "examples/program/Coding.h"

#include <istream>
#include <stdexcept>
#include <system_error>

namespace courier::examples {

using namespace hub::serialisation;
using hub::core::GenericPayload;

ByteBuffer encode(GenericSerialiser serialise) {
    ByteBufferOStream out;
    serialise(out);
    return out.release();
}

bool wasStopped(std::exception const& error) noexcept {
    auto const* const failure = dynamic_cast<std::system_error const*>(&error);
    return failure != nullptr && failure->code() == std::errc::operation_canceled;
}

GenericPayload decode(GenericDeserialiser const& deserialise, std::streambuf& source) {
    std::istream in(&source);
    in.exceptions(std::ios::badbit); // lets exceptions of the source through
    GenericPayload payload = deserialise(in);
    if (source.sgetc() != std::streambuf::traits_type::eof()) {
        throw std::runtime_error("bytes are left over");
    }
    return payload;
}

} // namespace courier::examples
