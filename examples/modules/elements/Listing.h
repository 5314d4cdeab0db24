// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ELEMENTS_LISTING_H
#define COURIER_EXAMPLES_ELEMENTS_LISTING_H

#include <Listing.pb.h>

namespace courier::examples {

/// Equal if they are written as the same bytes.
inline bool operator==(Listing const& a, Listing const& b) {
    return a.SerializeAsString() == b.SerializeAsString();
}

} // namespace courier::examples

#endif
