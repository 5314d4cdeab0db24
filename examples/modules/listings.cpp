// SPDX-License-Identifier: Apache-2.0
// The module of the element type Listing, a generated Protocol Buffers message.

#include "examples/modules/elements/Listing.h"
#include "examples/modules/formats/ProtobufFormat.h"

#include <courier/hub/serialisation/Module.h>

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue) {
    courier::examples::registerMessage<courier::examples::Listing>(catalogue);
}
