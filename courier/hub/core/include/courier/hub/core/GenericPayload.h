// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_CORE_GENERIC_PAYLOAD_H
#define COURIER_HUB_CORE_GENERIC_PAYLOAD_H

#include <courier/hub/core/TypeID.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <typeinfo>
#include <utility>
#include <vector>

/// The payload, and the identifiers of its elements' types.
namespace courier::hub::core {

/// Thrown when an element of a payload has another type than the one requested, or no value.
/// Copying does not throw.
class BadElementType : public std::bad_cast {
public:
    /// For the element `index`, with the type identifiers present and wanted, and the name of the
    /// type wanted, if it is known.
    BadElementType(std::size_t index, std::uint64_t present, std::uint64_t wanted,
                   std::string_view wantedName = {}) noexcept
        : index_(index), present_(present), wanted_(wanted) {
        auto const number = [](std::uint64_t id) { return static_cast<unsigned long long>(id); };
        std::array<char, 32> other{}; // 6 characters, 16 digits and a 0
        std::snprintf(other.data(), other.size(), ", not 0x%llX", number(wanted));
        int const length = std::snprintf(
            text_.data(), text_.size(), "Element %zu has type identifier 0x%llX%s%s%.*s", index,
            number(present), present == wanted ? " but no value" : other.data(),
            wantedName.empty() ? "" : " of ", static_cast<int>(wantedName.size()),
            wantedName.empty() ? "" : wantedName.data());
        if (static_cast<std::size_t>(length) >= text_.size()) {
            std::string_view("...").copy(text_.data() + text_.size() - 4, 3);
        }
    }

    /// Names the element, both identifiers and the type wanted. A long name is cut.
    [[nodiscard]] char const* what() const noexcept override { return text_.data(); }

    /// The position of the element in the payload.
    [[nodiscard]] std::size_t index() const noexcept { return index_; }
    /// The type identifier that the element has.
    [[nodiscard]] std::uint64_t present() const noexcept { return present_; }
    /// The type identifier that was requested; equal to present() if the element has no value.
    [[nodiscard]] std::uint64_t wanted() const noexcept { return wanted_; }

private:
    std::size_t index_;
    std::uint64_t present_;
    std::uint64_t wanted_;
    std::array<char, 512> text_{}; // with a 0 at the end
};

namespace detail {
[[noreturn]] inline void throwNoElement(std::size_t i, std::size_t elementCount,
                                        std::size_t typeIDs, std::size_t values) {
    throw std::out_of_range("The payload has no element " + std::to_string(i) +
                            ": its elementCount is " + std::to_string(elementCount) + ", with " +
                            std::to_string(typeIDs) + " typeIDs and " + std::to_string(values) +
                            " values");
}
} // namespace detail

/// A type-erased payload of several elements. Element i has type identifier typeIDs[i] and value
/// values[i]. Use add(), emplace() and get(), which keep the members consistent; the members are
/// public because they are part of the interface. Whoever adds to typeIDs and values directly also
/// sets elementCount: a fan-out makes that many serialisers, and none if it is still 0.
///
/// It shares the ownership of its values. Move-only. A moved-from payload has empty sequences but
/// keeps its elementCount. Thread-compatible.
struct GenericPayload {
    std::vector<std::uint64_t> typeIDs;           ///< of each element; see elementCount
    std::vector<std::shared_ptr<void>> values;    ///< of each element; see elementCount
    std::vector<std::function<void()>> callables; ///< passed through, never called here
    std::vector<std::shared_ptr<void>> objects;   ///< passed through; kept alive by the payload
    std::vector<bool> flags;                      ///< passed through
    std::vector<bool> moreFlags;                  ///< passed through
    std::size_t elementCount = 0; ///< decides how many are written; add(), emplace() keep it

    /// Without elements, or with those of the other payload.
    GenericPayload() = default;
    GenericPayload(GenericPayload&&) noexcept = default;
    GenericPayload& operator=(GenericPayload&&) noexcept = default;
    GenericPayload(GenericPayload const&) = delete;
    GenericPayload& operator=(GenericPayload const&) = delete;
    ~GenericPayload() = default;

    template <class MakeItAStdSharedPtr>
    requires std::is_pointer_v<MakeItAStdSharedPtr>
    void add(MakeItAStdSharedPtr) = delete;

    /// Appends one element of type T, which the payload shares. Amortised constant. Throws
    /// std::bad_alloc; strong guarantee.
    template <class T> void add(std::shared_ptr<T> value) {
        static_assert(!std::is_const_v<T>, "a payload gives mutable access to its elements: add a "
                                           "std::shared_ptr to a type that is not const");
        typeIDs.push_back(getTypeID<T>());
        try {
            values.push_back(std::move(value));
        } catch (...) {
            typeIDs.pop_back();
            throw;
        }
        elementCount = values.size(); // a moved-from payload still has its old count
    }

    /// Constructs an element of type T at the end and returns it. The reference is valid as long as
    /// the payload, moved or not, keeps the element. Amortised constant. Throws std::bad_alloc and
    /// what the constructor throws; strong guarantee.
    template <class T, class... Arguments> T& emplace(Arguments&&... arguments) {
        auto value = std::make_shared<T>(std::forward<Arguments>(arguments)...);
        T& element = *value;
        add(std::move(value));
        return element;
    }

    /// Element i, whose type must be T. Throws std::out_of_range if there is no type identifier or
    /// value i, and BadElementType, a std::bad_cast, if the element has another type or no value.
    /// The texts say what there is.
    template <class T> [[nodiscard]] T& get(std::size_t i) { return *find<T>(i); }

    /// The same, read-only.
    template <class T> [[nodiscard]] T const& get(std::size_t i) const { return *find<T>(i); }

private:
    template <class T> [[nodiscard]] T* find(std::size_t i) const {
        if (i >= typeIDs.size() || i >= values.size()) {
            detail::throwNoElement(i, elementCount, typeIDs.size(), values.size());
        }
        std::uint64_t const present = typeIDs[i];
        void* const value = values[i].get();
        if (present != getTypeID<T>() || value == nullptr) {
            throwBadElement(i, present, getTypeID<T>(), getTypeName<T>());
        }
        return static_cast<T*>(value);
    }
    [[noreturn]] static void throwBadElement(std::size_t i, std::uint64_t present,
                                             std::uint64_t wanted, std::string_view wantedName) {
        throw BadElementType(i, present, wanted, wantedName);
    }
};

static_assert(std::is_nothrow_move_constructible_v<GenericPayload>);
static_assert(std::is_nothrow_move_assignable_v<GenericPayload>);

} // namespace courier::hub::core

#endif
