// SPDX-License-Identifier: Apache-2.0
// The module of the element type Listing, a generated Protocol Buffers message.

#include "Listing.h"
#include "Module.h"
#include "ProtobufFormat.h"

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue,
                             std::uint64_t readLimit) {
    courier::examples::registerMessage<courier::examples::Listing>(catalogue, readLimit);
}
