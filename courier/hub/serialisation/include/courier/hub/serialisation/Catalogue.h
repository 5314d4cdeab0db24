// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_CATALOGUE_H
#define COURIER_HUB_SERIALISATION_CATALOGUE_H

#include <courier/hub/core/GenericPayload.h>
#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/Serialisers.h>
#include <courier/hub/serialisation/SharedPayload.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace courier::hub::serialisation {

/// What clients see of a catalogue: look-ups by wire format and type identifier, and queries for
/// what is registered.
///
/// Wire formats are compared byte for byte. "*" asks getSerialiserFor() for any wire format, and
/// gets the record registered first; no other operation gives it a meaning. The identifier of
/// `void` is answered without any record: by serialisers that only flush, a deserialiser that reads
/// nothing, and the wire format "builtin".
///
/// All operations may be called on several threads at once. What they return belongs to the caller.
/// Look up once and keep what you got, where a hot path allows it. A failed look-up throws
/// std::runtime_error "No serialiser found for " or "No deserialiser found for ", followed by the
/// wire format asked for. Arguments taken by value are destroyed with the call, whatever happens.
class COURIER_HUB_SERIALISATION_EXPORT SerialisationCatalogue {
public:
    SerialisationCatalogue() = default;
    SerialisationCatalogue(SerialisationCatalogue const&) = delete;
    SerialisationCatalogue& operator=(SerialisationCatalogue const&) = delete;

    /// A copy of the record registered under exactly this list of type identifiers.
    [[nodiscard]] virtual Serialiser
    getSerialiserFor(std::string const& wireFormat,
                     std::vector<std::uint64_t> const& typeIDs) const = 0;

    /// A copy of the record registered under this type identifier. For `void`, a record under the
    /// wire format asked for whose serialisers only flush.
    [[nodiscard]] virtual Serialiser getSerialiserFor(std::string const& wireFormat,
                                                      std::uint64_t typeID) const = 0;

    /// The serialiser of a whole payload: by its whole list of type identifiers or, where nothing
    /// is registered for that, by its first one. A payload without values gets a serialiser that
    /// only flushes, in any wire format. Throws std::out_of_range when the payload has values but
    /// no type identifier, std::bad_function_call when the record has no payload factory, and what
    /// the factory throws.
    [[nodiscard]] virtual GenericSerialiser
    getSerialiserFor(std::string const& wireFormat, core::GenericPayload payload) const = 0;

    /// The serialiser of the element that the view names, for a write that the caller can stop.
    /// Throws std::out_of_range when the view's index is past the payload's type identifiers,
    /// std::bad_function_call when the record has no such factory, and what the factory throws.
    [[nodiscard]] virtual GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                             GenericPayloadView view,
                                                             stop_source stopSource) const = 0;

    /// The same, for a write that cannot be stopped.
    [[nodiscard]] virtual GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                                             GenericPayloadView view) const = 0;

    /// A copy of the deserialiser registered under this wire format and type identifier.
    [[nodiscard]] virtual GenericDeserialiser getDeserialiserFor(std::string const& wireFormat,
                                                                 std::uint64_t typeID) const = 0;

    /// Whether getDeserialiserFor() succeeds with these arguments. Once true, it stays true.
    [[nodiscard]] virtual bool hasDeserialiserFor(std::string const& wireFormat,
                                                  std::uint64_t typeID) const = 0;

    /// The wire formats in which exactly this list of types can be written, in order of
    /// registration; none when nothing is registered.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const = 0;

    /// The wire formats in which this type can be written, in order of registration.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedWireFormats(std::uint64_t typeID) const = 0;

    /// The wire formats from which this type can be read, in order of registration. For
    /// core::GenericPayload and for std::istream, {"*"}.
    [[nodiscard]] virtual std::vector<std::string>
    getSupportedDeserialisationWireFormats(std::uint64_t typeID) const = 0;

    virtual ~SerialisationCatalogue();
};

/// The catalogue in which modules register how they write and read payload types.
///
/// Make one in main() and hand it to each module. Records stay until the catalogue is destroyed,
/// and what it hands out holds copies of their routines: a module must stay loaded until the
/// catalogue and everything that came out of it is gone. Nobody may use a catalogue while it is
/// destroyed.
///
/// Serialisers and deserialisers are kept apart, each set under a reader-writer lock of its own:
/// look-ups run in parallel and wait only for a registration of the same kind, which waits only for
/// those that began before it, so that neither starves. A look-up searches in constant time on
/// average, allocates nothing to search, and holds the lock for the search and the copy or the
/// factory's call. A factory must therefore not register serialisers, look them up or ask for their
/// wire formats in the same catalogue; the answers for `void` and for a payload without values take
/// no lock, so it may ask for those. Memory exhausted or a callable that throws leaves the
/// catalogue as it was.
class COURIER_HUB_SERIALISATION_EXPORT Catalogue : public SerialisationCatalogue {
public:
    /// An empty catalogue. Throws std::bad_alloc.
    Catalogue();
    ~Catalogue() override;

    /// Registers a serialiser, after every one registered before. It is a duplicate when one with
    /// the same wire format has the same type identifier or the same list of them. A duplicate ends
    /// the process with a diagnostic if bedrock_diag_terminate() says so, and is ignored otherwise.
    /// Amortised constant. Throws std::bad_alloc. Any thread may call it.
    void add(Serialiser serialiser);

    /// Registers a deserialiser. It is a duplicate when one with the same wire format has the same
    /// type identifier. Otherwise as for serialisers.
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
