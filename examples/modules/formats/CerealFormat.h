// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_FORMATS_CEREAL_FORMAT_H
#define COURIER_EXAMPLES_FORMATS_CEREAL_FORMAT_H

#include "examples/modules/formats/ReadLimit.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Registration.h>

#define CEREAL_FUTURE_EXPERIMENTAL // for UserDataAdapter, which carries the limit
#include <cereal/archives/adapters.hpp>
#include <cereal/archives/portable_binary.hpp>

#include <cstdint>
#include <istream>
#include <limits>
#include <stdexcept>
#include <string>

namespace cereal {

// Preferred to the archive's own template. Every container reads here the length that the bytes
// claim, and then allocates that many elements. Each counts as 64 bytes.
inline void CEREAL_SERIALIZE_FUNCTION_NAME(PortableBinaryInputArchive& archive,
                                           SizeTag<size_type&>& claimed) {
    constexpr std::uint64_t perElement = 64;
    constexpr auto most = std::numeric_limits<std::uint64_t>::max();
    archive(claimed.size);
    auto const size = std::uint64_t{claimed.size};
    get_user_data<courier::examples::ReadBudget>(archive).spend(
        size > most / perElement ? most : size * perElement);
}

} // namespace cereal

namespace courier::examples {

/// Registers a plain struct as "cereal", cereal's portable binary archive. There must be a
///
///     template <class Archive> void serialize(Archive& archive, Struct& value)
///
/// in the namespace of the struct. Include cereal's headers for the types of its members.
template <class Struct> void registerStruct(hub::serialisation::Catalogue& catalogue) {
    using namespace hub::serialisation;
    // The exceptions of cereal are classes of this module.
    addFormat<Struct>(
        catalogue, "cereal",
        [](Struct const& value, std::ostream& target, stop_token const& stop) {
            StoppableOStream out(stop, target);
            try {
                cereal::PortableBinaryOutputArchive archive(out);
                archive(value);
            } catch (cereal::Exception const& error) {
                throw std::runtime_error(error.what());
            }
        },
        limited(catalogue, [](std::istream& in, ReadBudget budget) {
            Struct value;
            try {
                cereal::UserDataAdapter<ReadBudget, cereal::PortableBinaryInputArchive> archive(
                    budget, in);
                archive(value);
            } catch (cereal::Exception const&) { // it only reports missing bytes
                throw std::runtime_error("the data is damaged or ends too early");
            }
            if (in.peek() != std::istream::traits_type::eof()) {
                throw std::runtime_error("bytes follow the end of the data");
            }
            return value;
        }));
}

} // namespace courier::examples

#endif
