// SPDX-License-Identifier: Apache-2.0
// Telling types apart.
#include "Support.h"

#include <courier/hub/core/TypeID.h>

#include <cstdint>
#include <string_view>
#include <typeinfo>

namespace benchmarks {

struct SampleType {
    virtual ~SampleType() = default;
};

} // namespace benchmarks

/// The report disassembles this function: the identifier must be a constant in its code.
extern "C" std::uint64_t courierSampleTypeID() {
    return courier::hub::core::getTypeID<benchmarks::SampleType>();
}

namespace benchmarks {
namespace {

Family const typeIDs([] {
    addCounted("type_id/0/courier",
               [] { return [] { keep(courier::hub::core::getTypeID<SampleType>()); }; });
    addCounted("type_id/0/typeid", [] { return [] { keep(typeid(SampleType).hash_code()); }; });
    addCounted("type_id/0/hash", [] {
        return [text = opaque("benchmarks::SampleType")] {
            keep(std::hash<std::string_view>()(opaque(text)));
        };
    });
});

} // namespace
} // namespace benchmarks
