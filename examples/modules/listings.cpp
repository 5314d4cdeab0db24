// SPDX-License-Identifier: Apache-2.0
// The module of the element type Listing, a generated Protocol Buffers message.

#include "Listing.h"
#include "Module.h"
#include "ProtobufFormat.h"

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue) {
    using namespace courier::examples;
    registerMessage<Listing>(catalogue, std::make_shared<ReadLimit>());
}
