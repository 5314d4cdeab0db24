// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_REGISTRATION_H
#define COURIER_HUB_SERIALISATION_REGISTRATION_H

#include <courier/hub/serialisation/Catalogue.h>
#include <courier/hub/serialisation/Export.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>
#include <version>
#ifdef __cpp_lib_jthread
#include <stop_token>
#endif

namespace courier::hub::serialisation {

/// A type that a payload can hold: an object type, no array, without const, volatile or reference.
template <class T>
concept ElementType =
    std::is_object_v<T> && !std::is_const_v<T> && !std::is_volatile_v<T> && !std::is_array_v<T>;

namespace detail {

// What a reader returns: the element or, for several types, a tuple of the elements.
template <class... Elements> struct Read { using Type = std::tuple<Elements...>; };
template <class Element> struct Read<Element> { using Type = Element; };

template <class F, class Result, class... Arguments>
concept Returns = std::invocable<F const&, Arguments...> &&
    std::same_as<std::invoke_result_t<F const&, Arguments...>, Result>;

} // namespace detail

/// What addFormat() and addWriter() take: `write(elements..., std::ostream&)`, called with each
/// element as `Element const&`. It returns nothing: it reports a failure by an exception or by the
/// state of the stream.
template <class Write, class... Elements>
concept WritesWithoutToken = detail::Returns<Write, void, Elements const&..., std::ostream&>;

/// The same with a token: `write(elements..., std::ostream&, stop_token const&)`.
template <class Write, class... Elements>
concept WritesWithToken =
    detail::Returns<Write, void, Elements const&..., std::ostream&, stop_token const&>;

/// A writer of elements of these types, with a token or without. It is copyable, and callable as
/// const because several threads may call it at once.
template <class Write, class... Elements>
concept WriterOf = std::copy_constructible<Write> &&
    (WritesWithoutToken<Write, Elements...> || WritesWithToken<Write, Elements...>);

/// What addFormat() and addReader() take: `read(std::istream&)`. It returns the element (for
/// several types, a std::tuple of the elements) by value, by std::unique_ptr or by std::shared_ptr.
/// A reference is rejected, because nothing would own the element. The reader is copyable, and
/// callable as const.
template <class Read, class... Elements>
concept ReaderOf = std::copy_constructible<Read> &&
    (detail::Returns<Read, typename detail::Read<Elements...>::Type, std::istream&> ||
     detail::Returns<Read, std::unique_ptr<typename detail::Read<Elements...>::Type>,
                     std::istream&> ||
     detail::Returns<Read, std::shared_ptr<typename detail::Read<Elements...>::Type>,
                     std::istream&>);

namespace detail {

template <class Write, class... Arguments>
concept Writes = std::invocable<Write, Arguments..., std::ostream&> ||
    std::invocable<Write, Arguments..., std::ostream&, stop_token const&>;
#ifdef __cpp_lib_jthread
template <class Write, class... Arguments>
concept WritesWithStdToken = std::invocable<Write, Arguments..., std::ostream&, std::stop_token>;
#else
template <class, class...>
concept WritesWithStdToken = false;
#endif

// Reports at the call which rule is broken. The result suppresses further errors.
template <class Write, class... Elements> constexpr bool isWriter() {
    constexpr bool areElements = (ElementType<Elements> && ...);
    static_assert(areElements,
                  "an element has an object type without const, volatile and reference");
    constexpr bool isCopyable = std::copy_constructible<Write>;
    static_assert(isCopyable, "write must be copyable, because each serialiser keeps a copy. Hold "
                              "what cannot be copied by a std::shared_ptr");
    if constexpr (areElements && isCopyable) {
        constexpr bool isCalled = Writes<Write const&, Elements const&...>;
        if constexpr (!isCalled) {
            constexpr bool isStd = WritesWithStdToken<Write const&, Elements const&...>;
            constexpr bool isMutable = Writes<Write&, Elements const&...>;
            constexpr bool changesElements = Writes<Write const&, Elements&...>;
            static_assert(!isStd, "write takes a std::stop_token, but a stop_source of this "
                                  "library gives a courier::hub::serialisation::stop_token: take "
                                  "that by const reference");
            static_assert(!isMutable, "write is called as a const object, because several threads "
                                      "may call it at once: make its operator() const, or the "
                                      "lambda not mutable");
            static_assert(!changesElements, "write is called with const references to the "
                                            "elements, because other serialisers may read them");
            static_assert(isStd || isMutable || changesElements,
                          "write is called as write(elements..., std::ostream&), or with a "
                          "stop_token const& behind");
        } else {
            static_assert(WriterOf<Write, Elements...>,
                          "write returns nothing: a failure is an exception, or a stream that has "
                          "failed");
        }
        return WriterOf<Write, Elements...>;
    }
    return false;
}
template <class F, class... Elements> constexpr bool isReader() {
    constexpr bool areElements = (ElementType<Elements> && ...);
    static_assert(areElements,
                  "an element has an object type without const, volatile and reference");
    constexpr bool isCopyable = std::copy_constructible<F>;
    static_assert(isCopyable, "read must be copyable, because each deserialiser keeps a copy. Hold "
                              "what cannot be copied by a std::shared_ptr");
    if constexpr (areElements && isCopyable) {
        if constexpr (!std::invocable<F const&, std::istream&>) {
            constexpr bool isMutable = std::invocable<F&, std::istream&>;
            static_assert(!isMutable, "read is called as a const object, because several threads "
                                      "may call it at once: make its operator() const, or the "
                                      "lambda not mutable");
            static_assert(isMutable, "read is called as read(std::istream&)");
        } else {
            using Result = std::invoke_result_t<F const&, std::istream&>;
            constexpr bool owns = !std::is_reference_v<Result> && !std::is_pointer_v<Result>;
            static_assert(owns, "read returns its result by value, by std::unique_ptr or by "
                                "std::shared_ptr, and not by reference or pointer: nothing would "
                                "own it");
            static_assert(!owns || ReaderOf<F, Elements...>,
                          "read returns the element, of exactly the type that is registered, or a "
                          "std::tuple of several");
        }
        return ReaderOf<F, Elements...>;
    }
    return false;
}

COURIER_HUB_SERIALISATION_EXPORT void requireName(std::string const& wireFormat);
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void
throwOtherElements(core::GenericPayload const& payload, std::size_t expected);
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwNothingRead();

template <class Write, class... Elements>
void callWriter(Write const& write, stop_token const& token, std::ostream& out,
                Elements const&... elements) {
    throwIfStopped(token);
    if constexpr (WritesWithToken<Write, Elements...>) {
        std::invoke(write, elements..., out, token);
    } else {
        std::invoke(write, elements..., out);
    }
}

// The routine that writes one element of a shared payload. For several types, that element is a
// tuple of them. The view keeps the payload alive.
template <class Write, class... Elements> struct ElementRoutine {
    std::shared_ptr<void> handle; // destroyed last: the writer and the elements may need it
    [[no_unique_address]] Write write;
    GenericPayloadView view;

    void operator()(stop_token const& token, std::ostream& out) const {
        if constexpr (sizeof...(Elements) == 1) {
            callWriter(write, token, out, std::as_const(view.get<Elements...>()));
        } else {
            std::apply([&](Elements const&... each) { callWriter(write, token, out, each...); },
                       view.get<std::tuple<Elements...>>());
        }
    }
};

// The routine that writes a whole payload of several elements.
template <class Write, class... Elements> struct PayloadRoutine {
    std::shared_ptr<void> handle;
    [[no_unique_address]] Write write;
    GenericPayloadWrapperPtr payload;

    void operator()(stop_token const& token, std::ostream& out) const {
        auto const writeAll = [&]<std::size_t... i>(std::index_sequence<i...>) {
            callWriter(write, token, out,
                       std::as_const(payload->get()).template get<Elements>(i)...);
        };
        writeAll(std::index_sequence_for<Elements...>());
    }
};

template <class Routine> GenericSerialiser
serialiserOf(Routine routine,
             stop_source stop = stop_source(bedrock::concurrent::threadpool::nostopstate)) {
    std::shared_ptr<void> handle = routine.handle;
    return GenericSerialiser(std::move(routine), std::move(stop), {}, std::move(handle));
}

template <class... Elements, class Write> Serialiser
makeSerialiser(std::string const& wireFormat, Write write, std::shared_ptr<void> const& handle) {
    using Routine = ElementRoutine<Write, Elements...>;
    std::vector<std::uint64_t> const typeIDs{core::getTypeID<Elements>()...};
    return Serialiser(
        wireFormat, core::getTypeID<typename Read<Elements...>::Type>(), typeIDs,
        [handle, write](GenericPayloadView&& view) {
            return serialiserOf(Routine{handle, write, std::move(view)});
        },
        [handle, write](GenericPayloadView&& view, stop_source&& stop) {
            return serialiserOf(Routine{handle, write, std::move(view)}, std::move(stop));
        },
        [handle, write](core::GenericPayload&& payload) {
            // A payload of more elements finds this record by its first element: refuse to drop the
            // rest.
            if (payload.elementCount == 1) {
                return serialiserOf(Routine{
                    handle, write,
                    GenericPayloadView(GenericPayloadWrapperPtr::make(std::move(payload)), 0)});
            }
            if constexpr (sizeof...(Elements) > 1) {
                if (payload.elementCount == sizeof...(Elements)) {
                    return serialiserOf(PayloadRoutine<Write, Elements...>{
                        handle, write, GenericPayloadWrapperPtr::make(std::move(payload))});
                }
            }
            throwOtherElements(payload, sizeof...(Elements));
        });
}

template <class T> std::shared_ptr<T> requireElement(std::shared_ptr<T> element) {
    if (!element) {
        throwNothingRead();
    }
    return element;
}

template <class... Elements, class F>
Deserialiser makeDeserialiser(std::string const& wireFormat, F read, std::shared_ptr<void> handle) {
    using Element = typename Read<Elements...>::Type;
    using Result = std::invoke_result_t<F const&, std::istream&>;
    auto routine = [handle, reader = std::move(read)](std::istream& in) -> core::GenericPayload {
        core::GenericPayload payload;
        if constexpr (sizeof...(Elements) > 1) {
            auto const add = [&payload](Elements&... each) {
                (payload.add(std::make_shared<Elements>(std::move(each))), ...);
            };
            if constexpr (std::same_as<Result, Element>) {
                Element elements = std::invoke(reader, in);
                std::apply(add, elements);
            } else {
                std::apply(add, *requireElement(std::shared_ptr<Element>(std::invoke(reader, in))));
            }
        } else if constexpr (std::same_as<Result, Element>) {
            payload.add(std::make_shared<Element>(std::invoke(reader, in)));
        } else {
            payload.add(requireElement(std::shared_ptr<Element>(std::invoke(reader, in))));
        }
        return payload;
    };
    return Deserialiser(wireFormat, core::getTypeID<Element>(),
                        GenericDeserialiser(std::move(routine), std::move(handle)));
}

} // namespace detail

/// Registers how elements of a type are written in one wire format.
///
/// A serialiser throws std::system_error with std::errc::operation_canceled, without calling
/// `write`, if a stop was requested. A `write` that takes the token decides how often it polls it
/// (see throwIfStopped(), and StoppableOStream in IOStreams.h).
///
/// For several types, registers one record for a payload of exactly these elements, in this order.
/// It is found by the list of their identifiers. For an element that is a std::tuple of them, it is
/// found by the identifier of the tuple. A look-up for a payload with another number of elements
/// throws std::invalid_argument, so that no element is dropped.
///
/// Each factory keeps a copy of `write`, and so does each serialiser. They also share the handle,
/// which may own the library whose code writes: it is released after `write` and the elements;
/// several threads may call them at once. A duplicate is handled as by Catalogue::add(). Throws
/// std::invalid_argument if the wire format is empty or "*", which look-ups take for any wire
/// format; std::bad_alloc; and what copying `write` throws. Strong guarantee. Thread-safe. Each
/// serialiser of an element allocates once, for its routine; that of a whole payload three times.
template <class Element, class... More, class Write>
void addWriter(Catalogue& catalogue, std::string const& wireFormat, Write write,
               std::shared_ptr<void> handle = {}) {
    if constexpr (detail::isWriter<Write, Element, More...>()) {
        detail::requireName(wireFormat);
        catalogue.add(
            detail::makeSerialiser<Element, More...>(wireFormat, std::move(write), handle));
    }
}

/// Registers how elements of a type are read from one wire format. What `read` throws reaches the
/// caller of the deserialiser. If `read` returns a null pointer, the deserialiser throws
/// std::logic_error.
///
/// For several types, `read` returns a std::tuple of them, and the deserialiser returns a payload
/// of as many elements. It is found by the identifier of the tuple: `getDeserialiserFor(wireFormat,
/// getTypeID<std::tuple<Order, Customer>>())`.
///
/// The deserialiser and its copies keep the handle alive. Otherwise as addWriter().
template <class Element, class... More, class Read>
void addReader(Catalogue& catalogue, std::string const& wireFormat, Read read,
               std::shared_ptr<void> handle = {}) {
    if constexpr (detail::isReader<Read, Element, More...>()) {
        detail::requireName(wireFormat);
        catalogue.add(detail::makeDeserialiser<Element, More...>(wireFormat, std::move(read),
                                                                 std::move(handle)));
    }
}

/// Registers how a type is written and read, by two functions for each wire format:
///
///     void writePrice(Price const& price, std::ostream& out) { out << price.cents << ';'; }
///     Price readPrice(std::istream& in) {
///         Price price{};
///         if (!(in >> price.cents) || in.get() != ';') {
///             throw std::runtime_error("not a price");
///         }
///         return price;
///     }
///
///     addFormat<Price>(catalogue, "text", writePrice, readPrice);
///
/// A thin layer over the records of Serialisers.h, which can do the same by hand at the same cost.
/// Registers the writer first. If the registration of the reader throws, that of the writer stays.
template <class Element, class... More, class Write, class Read>
void addFormat(Catalogue& catalogue, std::string const& wireFormat, Write write, Read read,
               std::shared_ptr<void> handle = {}) {
    addWriter<Element, More...>(catalogue, wireFormat, std::move(write), handle);
    addReader<Element, More...>(catalogue, wireFormat, std::move(read), std::move(handle));
}

} // namespace courier::hub::serialisation

#endif
