// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Registration.h>

#include <stdexcept>

namespace courier::hub::serialisation::detail {

void requireName(std::string const& wireFormat) {
    if (wireFormat.empty()) {
        throw std::invalid_argument("A wire format needs a name");
    }
    if (wireFormat == "*") {
        throw std::invalid_argument("\"*\" matches any wire format and cannot be the name of one");
    }
}

void throwOtherElements(core::GenericPayload const& payload, std::size_t expected) {
    throw std::invalid_argument("A serialiser for payloads of " + std::to_string(expected) +
                                (expected == 1 ? " element" : " elements") +
                                " cannot write one of " + std::to_string(payload.elementCount));
}

void throwNothingRead() { throw std::logic_error("The reader returned a null pointer"); }

} // namespace courier::hub::serialisation::detail
