// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_GENERIC_PAYLOAD_H
#define COURIER_HUB_CORE_GENERIC_PAYLOAD_H

#include <courier/hub/core/TypeID.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

/// The payload, and the identifiers of its elements' types.
namespace courier::hub::core {

/// A type-erased payload of several elements, each with the identifier of its type. Element i has
/// type identifier typeIDs[i] and value values[i].
///
/// Move-only. A moved-from payload has empty sequences but keeps its elementCount. One payload
/// belongs to one thread at a time; const access may run on several threads at once.
struct GenericPayload {
    std::vector<std::uint64_t> typeIDs;           ///< type identifier of each element
    std::vector<std::shared_ptr<void>> values;    ///< value of each element
    std::vector<std::function<void()>> callables; ///< carried along, never called here
    std::vector<std::shared_ptr<void>> objects;   ///< carried along: kept alive with the payload
    std::vector<bool> flags;                      ///< carried along
    std::vector<bool> moreFlags;                  ///< carried along
    std::size_t elementCount = 0;                 ///< number of elements

    /// No elements, or those of the payload moved from.
    GenericPayload() = default;
    GenericPayload(GenericPayload&&) noexcept = default;
    GenericPayload& operator=(GenericPayload&&) noexcept = default;
    GenericPayload(GenericPayload const&) = delete;
    GenericPayload& operator=(GenericPayload const&) = delete;
    ~GenericPayload() = default;

    /// Appends one element of type T. Amortised constant. Throws std::bad_alloc; the payload is
    /// then as before.
    template <class T> void add(std::shared_ptr<T> value) {
        static_assert(!std::is_const_v<T>, "a payload gives mutable access to its elements");
        typeIDs.push_back(getTypeID<T>());
        try {
            values.push_back(std::move(value));
        } catch (...) {
            typeIDs.pop_back();
            throw;
        }
        elementCount = values.size(); // a moved-from payload still has its old count
    }

    /// Element i, whose type must be T.
    /// Throws std::out_of_range past the end; std::bad_cast when the element has another type, or
    /// no value.
    template <class T> [[nodiscard]] T& get(std::size_t i) { return *find<T>(i); }

    /// The same, read-only.
    template <class T> [[nodiscard]] T const& get(std::size_t i) const { return *find<T>(i); }

private:
    template <class T> [[nodiscard]] T* find(std::size_t i) const {
        bool const isSameType = typeIDs.at(i) == getTypeID<T>();
        void* const value = values.at(i).get();
        if (!isSameType || value == nullptr) {
            throw std::bad_cast();
        }
        return static_cast<T*>(value);
    }
};

static_assert(std::is_nothrow_move_constructible_v<GenericPayload>);
static_assert(std::is_nothrow_move_assignable_v<GenericPayload>);

} // namespace courier::hub::core

#endif
