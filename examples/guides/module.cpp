// SPDX-License-Identifier: Apache-2.0
// The module of docs/guides/module.md: loaded at run time by host.cpp.

#include "Temperature.h"

#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#include <array>
#include <bit>
#include <cstdint>
#include <istream>
#include <ostream>
#include <stdexcept>

using namespace courier::hub::serialisation;

namespace {

void writeText(Temperature const& temperature, std::ostream& out) {
    out << temperature.celsius << '\n';
}

Temperature readText(std::istream& in) {
    Temperature temperature{};
    if (!(in >> temperature.celsius) || in.get() != '\n') {
        throw std::runtime_error("not a temperature");
    }
    return temperature;
}

// Eight bytes, the lowest first, whatever the machine.
void writeBinary(Temperature const& temperature, std::ostream& out) {
    auto bits = std::bit_cast<std::uint64_t>(temperature.celsius);
    for (int i = 0; i < 8; ++i, bits >>= 8) {
        out.put(static_cast<char>(bits & 0xFF));
    }
}

Temperature readBinary(std::istream& in) {
    std::array<char, 8> bytes{};
    if (!in.read(bytes.data(), bytes.size())) {
        throw std::runtime_error("the data ends too early");
    }
    std::uint64_t bits = 0;
    for (std::size_t i = bytes.size(); i-- > 0;) {
        bits = bits << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return {std::bit_cast<double>(bits)};
}

} // namespace

void courier_register_module(Catalogue& catalogue) {
    addFormat<Temperature>(catalogue, "text", writeText, readText);
    addFormat<Temperature>(catalogue, "binary", writeBinary, readBinary);
}
