// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_ELEMENT_H
#define COURIER_EXAMPLES_PROGRAM_ELEMENT_H

#include "examples/modules/elements/Blob.h"
#include "examples/modules/elements/Document.h"
#include "examples/modules/elements/Histogram.h"
#include "examples/modules/elements/Listing.h"

#include <courier/hub/core/GenericPayload.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <variant>

namespace courier::examples {

struct NamedType {
    std::string_view name;
    std::uint64_t id;
};

/// The types that this program puts into payloads.
inline constexpr std::array elementTypes{
    NamedType{"Document", hub::core::getTypeID<Document>()},
    NamedType{"Blob", hub::core::getTypeID<Blob>()},
    NamedType{"Listing", hub::core::getTypeID<Listing>()},
    NamedType{"Histogram", hub::core::getTypeID<Histogram>()},
};

/// A file, or a value that the program has made, ready to be sent.
struct Element {
    std::string name;
    std::size_t size; // of the file or, approximately, in memory
    std::variant<std::shared_ptr<Document>, std::shared_ptr<Blob>, std::shared_ptr<Listing>,
                 std::shared_ptr<Histogram>>
        value; // as in elementTypes

    [[nodiscard]] NamedType const& type() const { return elementTypes.at(value.index()); }

    /// Adds the value to the payload, which shares it from then on.
    void addTo(hub::core::GenericPayload& payload) const {
        std::visit([&](auto const& held) { payload.add(held); }, value);
    }

    /// Whether the payload holds this one value and nothing else.
    [[nodiscard]] bool isAllOf(hub::core::GenericPayload const& payload) const {
        return payload.elementCount == 1 && std::visit(
                                                [&]<class T>(std::shared_ptr<T> const& held) {
                                                    return payload.get<T>(0) == *held;
                                                },
                                                value);
    }
};

} // namespace courier::examples

#endif
