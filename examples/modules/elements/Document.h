// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ELEMENTS_DOCUMENT_H
#define COURIER_EXAMPLES_ELEMENTS_DOCUMENT_H

#include <nlohmann/json.hpp>

namespace courier::examples {

/// A JSON document. Wire formats: json, cbor, msgpack, bson (an object at the top only), ubjson.
struct Document {
    nlohmann::json value;

    /// Numbers are equal by value, whatever their representation.
    friend bool operator==(Document const& a, Document const& b) { return a.value == b.value; }
};

} // namespace courier::examples

#endif
