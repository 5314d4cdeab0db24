// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_CATALOGUE_H
#define COURIER_HUB_SERIALISATION_CATALOGUE_H

#include <courier/hub/core/GenericPayload.h>
#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/Serialisers.h>
#include <courier/hub/serialisation/SharedPayload.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace courier::hub::serialisation {

/// Thrown by a look-up that finds nothing. what() is "No serialiser found for " or "No deserialiser
/// found for ", followed by the wire format requested. Copying does not throw.
class COURIER_HUB_SERIALISATION_EXPORT LookUpError : public std::runtime_error {
public:
    /// For implementations of SerialisationCatalogue. `what` is the text before the wire format.
    /// Throws std::bad_alloc.
    LookUpError(std::string const& what, std::string wireFormat, std::vector<std::uint64_t> typeIDs,
                std::vector<std::string> supported);
    LookUpError(LookUpError const&) noexcept;
    LookUpError& operator=(LookUpError const&) noexcept;
    ~LookUpError() override;

    /// The wire format requested.
    [[nodiscard]] std::string const& wireFormat() const noexcept;

    /// The first of typeIDs(), or 0.
    [[nodiscard]] std::uint64_t typeID() const noexcept;
    /// All type identifiers requested: those of the list or payload, or the single one.
    [[nodiscard]] std::vector<std::uint64_t> const& typeIDs() const noexcept;

    /// The wire formats that would have been found, in order of registration. For a payload, those
    /// of its list come first, then those of its first element.
    [[nodiscard]] std::vector<std::string> const& supportedWireFormats() const noexcept;

    /// The element of the fan-out whose look-up it was. Empty if no fan-out called the look-up, or
    /// if a factory threw this error.
    [[nodiscard]] std::optional<std::size_t> element() const noexcept { return element_; }

    /// Sentences for a log: what() with the element and the type identifiers requested, which wire
    /// formats there are for them, and what to check. Throws std::bad_alloc.
    [[nodiscard]] std::string explain() const;

    /// Called by createSerialisersFor(), which sets the element, and by a catalogue that passes on
    /// what a factory threw, so that a fan-out does not set it.
    void setElement(std::size_t index) noexcept;
    void setThrownByFactory() noexcept { isThrownByFactory_ = true; }

private:
    struct Details;
    std::shared_ptr<Details const> details_;
    std::optional<std::size_t> element_;
    bool isThrownByFactory_ = false;
};

/// What clients see of a catalogue: look-ups by wire format and type identifier, and queries for
/// what is registered. Implement it to test a client without a Catalogue.
///
/// Wire formats are compared byte for byte. In getSerialiserFor() "*" matches any wire format, and
/// the earliest registration wins; elsewhere it is an ordinary name.
///
/// The identifier of `void` needs no record in a look-up or query by a single identifier. The
/// result is a record whose serialisers only flush, a deserialiser that reads nothing, or the wire
/// format "builtin", whatever is registered. Look-ups by a list, a view or a payload treat this
/// identifier like any other.
///
/// The caller owns what the operations return. Arguments taken by value are destroyed when the call
/// returns or throws. A look-up that finds nothing throws LookUpError. Thread-safe. On a hot path,
/// look up once and keep the result.
class COURIER_HUB_SERIALISATION_EXPORT SerialisationCatalogue {
public:
    SerialisationCatalogue() = default;
    SerialisationCatalogue(SerialisationCatalogue const&) = delete;
    SerialisationCatalogue& operator=(SerialisationCatalogue const&) = delete;

    /// A copy of the record registered under exactly this list of type identifiers.
    [[nodiscard]] virtual Serialiser
    getSerialiserFor(std::string const& wireFormat,
                     std::vector<std::uint64_t> const& typeIDs) const = 0;

    /// A copy of the record registered under this type identifier. For `void`, a new record with
    /// the wire format requested, whose serialisers only flush.
    [[nodiscard]] virtual Serialiser getSerialiserFor(std::string const& wireFormat,
                                                      std::uint64_t typeID) const = 0;

    /// The serialiser of a whole payload. Uses the record under its whole list of type identifiers
    /// or, if there is none, the record under the first of them. That record's payload factory gets
    /// the whole payload, so it must check that there is only one element, as those of addFormat()
    /// do. For a payload without values, returns a serialiser that only flushes, in any wire
    /// format. Throws std::out_of_range if the payload has values but no type identifier,
    /// std::bad_function_call if the record has no payload factory, and what the factory throws.
    [[nodiscard]] virtual GenericSerialiser
    getSerialiserFor(std::string const& wireFormat, core::GenericPayload payload) const = 0;

    /// The serialiser of the element that the view refers to. The factory gets the stop source,
    /// through which the caller can stop the write. Throws std::out_of_range if the view's index is
    /// not below the number of the payload's type identifiers, std::bad_function_call if the record
    /// has no such factory, and what the factory throws.
    [[nodiscard]] virtual GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                             GenericPayloadView view,
                                                             stop_source stopSource) const = 0;

    /// The same without a stop source: only a token passed to the serialiser can stop the write.
    [[nodiscard]] virtual GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                             GenericPayloadView view) const = 0;

    /// A copy of the deserialiser registered under this wire format and type identifier.
    [[nodiscard]] virtual GenericDeserialiser getDeserialiserFor(std::string const& wireFormat,
                                                                 std::uint64_t typeID) const = 0;

    /// True if getDeserialiserFor() finds a deserialiser for these arguments. Once true, it stays
    /// true.
    [[nodiscard]] virtual bool hasDeserialiserFor(std::string const& wireFormat,
                                                  std::uint64_t typeID) const = 0;

    /// The wire formats in which exactly this list of types can be written, in order of
    /// registration.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const = 0;

    /// The wire formats in which this type can be written, in order of registration.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedWireFormats(std::uint64_t typeID) const = 0;

    /// The wire formats from which this type can be read, in order of registration. For
    /// core::GenericPayload and for std::istream, {"*"}, whatever is registered.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedDeserialisationWireFormats(std::uint64_t typeID) const = 0;

    virtual ~SerialisationCatalogue();
};

/// The catalogue in which modules register how they write and read payload types.
///
/// Make one in main() and pass it to each module, which registers by the functions of
/// <courier/hub/serialisation/Registration.h>.
///
/// Neither copied nor moved. Records stay until the catalogue is destroyed, and what it returns has
/// copies of their routines: a module must stay loaded until the catalogue and everything that it
/// returned are destroyed.
///
/// Strong guarantee, even if memory is exhausted or users' code throws.
///
/// Thread-safe, except for the destructor. Serialisers and deserialisers are two sets, each with a
/// reader-writer lock. Look-ups run in parallel and wait only for a registration of the same kind.
/// A look-up holds the lock while it searches, and while it copies the record or calls the factory.
///  - A factory may look up in the same catalogue, even while a registration waits.
///  - It may register records of the other kind there. Registering the same kind would deadlock, so
///    add() throws std::logic_error instead.
///  - It must not wait for another thread that registers or looks up there: the registration waits
///    for the factory, and a look-up that comes later waits for the registration. The same holds
///    across catalogues: if factories of A look up in B, those of B must not look up in A.
///  - A registration waits for running factories, and later look-ups wait for it. Keep factories
///    short, and do the work in the serialiser's routine.
///
/// A search takes constant time on average and allocates nothing.
class COURIER_HUB_SERIALISATION_EXPORT Catalogue : public SerialisationCatalogue {
public:
    /// An empty catalogue. Throws std::bad_alloc.
    Catalogue();
    ~Catalogue() override;

    /// Registers a serialiser. It is a duplicate if a record in the same wire format has the same
    /// type identifier, or the same list of identifiers, even if both are empty. A duplicate ends
    /// the process with a diagnostic, and a line with the identifiers before it, if
    /// bedrock_diag_terminate() returns true; otherwise it is ignored. Amortised constant, but the
    /// registration that doubles the tables copies them: it takes some ten milliseconds at 10,000
    /// records and more than a second at 1,000,000, in which look-ups continue. Throws
    /// std::bad_alloc, and std::logic_error when called from a serialiser factory of this
    /// catalogue, or while one is copied.
    void add(Serialiser serialiser);

    /// Registers a deserialiser. It is a duplicate if a record in the same wire format has the same
    /// type identifier. Otherwise as for serialisers, except that it throws std::logic_error while
    /// this thread copies a deserialiser of this catalogue.
    void add(Deserialiser deserialiser);

    [[nodiscard]] Serialiser
    getSerialiserFor(std::string const& wireFormat,
                     std::vector<std::uint64_t> const& typeIDs) const override;
    [[nodiscard]] Serialiser getSerialiserFor(std::string const& wireFormat,
                                              std::uint64_t typeID) const override;
    [[nodiscard]] GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                     core::GenericPayload payload) const override;
    [[nodiscard]] GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                     GenericPayloadView view,
                                                     stop_source stopSource) const override;
    [[nodiscard]] GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                     GenericPayloadView view) const override;
    [[nodiscard]] GenericDeserialiser getDeserialiserFor(std::string const& wireFormat,
                                                         std::uint64_t typeID) const override;
    [[nodiscard]] bool hasDeserialiserFor(std::string const& wireFormat,
                                          std::uint64_t typeID) const override;
    [[nodiscard]] std::vector<std::string>
    getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const override;
    [[nodiscard]] std::vector<std::string>
    getSupportedWireFormats(std::uint64_t typeID) const override;
    [[nodiscard]] std::vector<std::string>
    getSupportedDeserialisationWireFormats(std::uint64_t typeID) const override;

private:
    struct Records;
    std::unique_ptr<Records> const records_;
};

} // namespace courier::hub::serialisation

#endif
