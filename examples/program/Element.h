// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_ELEMENT_H
#define COURIER_EXAMPLES_PROGRAM_ELEMENT_H

#include "examples/elements/Blob.h"
#include "examples/elements/Document.h"
#include "examples/elements/Histogram.h"
#include "examples/elements/Listing.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <filesystem>
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
    void addTo(hub::core::GenericPayload& payload) const;

    /// Whether the payload holds this one value and nothing else.
    [[nodiscard]] bool isAllOf(hub::core::GenericPayload const& payload) const;
};

/// Reads a .json file as a Document, and maps any other as a Blob. Throws std::runtime_error, which
/// names the file.
[[nodiscard]] Element load(std::filesystem::path const& file, std::string name,
                           hub::serialisation::SerialisationCatalogue const& catalogue);

/// The names, sizes and times of the files in a directory, as a Listing. Throws
/// std::filesystem::filesystem_error.
[[nodiscard]] Element list(std::filesystem::path const& directory, std::string name);

/// How often each byte value occurs in a file, as a Histogram. Throws as Blob::map() does.
[[nodiscard]] Element countBytes(std::filesystem::path const& file, std::string name);

} // namespace courier::examples

#endif
