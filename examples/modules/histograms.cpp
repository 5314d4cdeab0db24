// SPDX-License-Identifier: Apache-2.0
// The module of the element type Histogram, a plain struct.

#include "examples/modules/elements/Histogram.h"
#include "examples/modules/formats/CerealFormat.h"

#include <courier/hub/serialisation/Module.h>

#include <cereal/types/string.hpp>
#include <cereal/types/vector.hpp>

namespace courier::examples {

template <class Archive> void serialize(Archive& archive, Histogram& histogram) {
    archive(histogram.file, histogram.counts);
}

} // namespace courier::examples

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue) {
    courier::examples::registerStruct<courier::examples::Histogram>(catalogue);
}
