// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ELEMENTS_HISTOGRAM_H
#define COURIER_EXAMPLES_ELEMENTS_HISTOGRAM_H

#include <cstdint>
#include <string>
#include <vector>

namespace courier::examples {

/// How often each byte value occurs in a file. Wire format: cereal.
struct Histogram {
    std::string file;
    std::vector<std::uint64_t> counts;

    friend bool operator==(Histogram const&, Histogram const&) = default;
};

} // namespace courier::examples

#endif
