// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Catalogue.h>

#include <bedrock/core/diag/terminate.h>

#include <boost/current_function.hpp>
#include <boost/multi_index/composite_key.hpp>
#include <boost/multi_index/global_fun.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>

#include <iosfwd>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>
#include <tuple>

namespace courier::hub::serialisation {

// The keys of the records, by reference: the getters copy, and a search may not.
struct RecordKeys {
    template <class Record> static std::uint64_t typeID(Record const& record) {
        return record.typeID_;
    }
    static std::vector<std::uint64_t> const& typeIDs(Serialiser const& record) {
        return record.typeIDs_;
    }
    template <class Record> static std::string const& wireFormat(Record const& record) {
        return record.wireFormat_;
    }
};

namespace {

namespace mi = boost::multi_index;

template <class Record> using TypeID =
    mi::global_fun<Record const&, std::uint64_t, &RecordKeys::typeID<Record>>;
using TypeIDs =
    mi::global_fun<Serialiser const&, std::vector<std::uint64_t> const&, &RecordKeys::typeIDs>;
template <class Record> using WireFormat =
    mi::global_fun<Record const&, std::string const&, &RecordKeys::wireFormat<Record>>;

// One order for each kind of key, in which equal keys stay in order of registration, and one for
// each kind of key together with the wire format, in which no two records are equal.
struct ByTypeID;
struct ByTypeIDs;
struct ByTypeIDAndFormat;
struct ByTypeIDsAndFormat;

using SerialiserSet = mi::multi_index_container<
    Serialiser,
    mi::indexed_by<
        mi::ordered_non_unique<mi::tag<ByTypeID>, TypeID<Serialiser>>,
        mi::ordered_non_unique<mi::tag<ByTypeIDs>, TypeIDs>,
        mi::ordered_unique<
            mi::tag<ByTypeIDAndFormat>,
            mi::composite_key<Serialiser, TypeID<Serialiser>, WireFormat<Serialiser>>>,
        mi::ordered_unique<mi::tag<ByTypeIDsAndFormat>,
                           mi::composite_key<Serialiser, TypeIDs, WireFormat<Serialiser>>>>>;

using DeserialiserSet = mi::multi_index_container<
    Deserialiser,
    mi::indexed_by<mi::ordered_non_unique<mi::tag<ByTypeID>, TypeID<Deserialiser>>,
                   mi::ordered_unique<mi::tag<ByTypeIDAndFormat>,
                                      mi::composite_key<Deserialiser, TypeID<Deserialiser>,
                                                        WireFormat<Deserialiser>>>>>;

template <class KeyAndFormat, class Set, class Key>
auto const* findExact(Set const& set, std::string const& wireFormat, Key const& key) {
    auto const& index = set.template get<KeyAndFormat>();
    auto const found = index.find(std::forward_as_tuple(key, wireFormat));
    return found != index.end() ? &*found : nullptr;
}

// The record for a key in a wire format; for the wildcard, the one registered first.
template <class ByKey, class ByKeyAndFormat, class Key>
Serialiser const* find(SerialiserSet const& set, std::string const& wireFormat, Key const& key) {
    if (wireFormat == "*") {
        auto const& index = set.get<ByKey>();
        auto const [first, last] = index.equal_range(key);
        return first != last ? &*first : nullptr;
    }
    return findExact<ByKeyAndFormat>(set, wireFormat, key);
}

Serialiser const* find(SerialiserSet const& set, std::string const& wireFormat,
                       std::uint64_t typeID) {
    return find<ByTypeID, ByTypeIDAndFormat>(set, wireFormat, typeID);
}

Serialiser const* find(SerialiserSet const& set, std::string const& wireFormat,
                       std::vector<std::uint64_t> const& typeIDs) {
    return find<ByTypeIDs, ByTypeIDsAndFormat>(set, wireFormat, typeIDs);
}

Serialiser const& orThrow(Serialiser const* found, std::string const& wireFormat) {
    if (found == nullptr) {
        throw std::runtime_error("No serialiser found for " + wireFormat);
    }
    return *found;
}

template <class ByKey, class Set, class Key>
std::vector<std::string> wireFormats(Set const& set, Key const& key) {
    std::vector<std::string> formats;
    auto const [first, last] = set.template get<ByKey>().equal_range(key);
    for (auto record = first; record != last; ++record) {
        formats.push_back(RecordKeys::wireFormat(*record));
    }
    return formats;
}

Serialiser makeVoidSerialiser(std::string const& wireFormat) {
    return Serialiser(
        wireFormat, core::getTypeID<void>(), {},
        [](GenericPayloadView&&) { return GenericSerialiser(); },
        [](GenericPayloadView&&, stop_source&&) { return GenericSerialiser(); },
        [](core::GenericPayload&&) { return GenericSerialiser(); });
}

} // namespace

struct Catalogue::Records {
    SerialiserSet serialisers;
    mutable std::shared_mutex serialiserLock;
    DeserialiserSet deserialisers;
    mutable std::shared_mutex deserialiserLock;
};

SerialisationCatalogue::~SerialisationCatalogue() = default;

Catalogue::Catalogue() : records_(std::make_unique<Records>()) {}

Catalogue::~Catalogue() = default;

void Catalogue::add(Serialiser serialiser) {
    std::lock_guard const lock(records_->serialiserLock);
    auto const [record, accepted] = records_->serialisers.insert(std::move(serialiser));
    if (!accepted && bedrock_diag_terminate()) {
        bedrock::core::diag::terminate("Attempted to add duplicate serialiser for " +
                                           RecordKeys::wireFormat(*record),
                                       __FILE__, __LINE__, BOOST_CURRENT_FUNCTION);
    }
}

void Catalogue::add(Deserialiser deserialiser) {
    std::lock_guard const lock(records_->deserialiserLock);
    auto const [record, accepted] = records_->deserialisers.insert(std::move(deserialiser));
    if (!accepted && bedrock_diag_terminate()) {
        bedrock::core::diag::terminate("Attempted to add duplicate deserialiser for " +
                                           RecordKeys::wireFormat(*record),
                                       __FILE__, __LINE__, BOOST_CURRENT_FUNCTION);
    }
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                       std::vector<std::uint64_t> const& typeIDs) const {
    std::shared_lock const lock(records_->serialiserLock);
    return orThrow(find(records_->serialisers, wireFormat, typeIDs), wireFormat);
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return makeVoidSerialiser(wireFormat);
    }
    std::shared_lock const lock(records_->serialiserLock);
    return orThrow(find(records_->serialisers, wireFormat, typeID), wireFormat);
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              core::GenericPayload payload) const {
    if (payload.values.empty()) {
        return GenericSerialiser();
    }
    std::shared_lock const lock(records_->serialiserLock);
    Serialiser const* found = find(records_->serialisers, wireFormat, payload.typeIDs);
    if (found == nullptr) {
        found = find(records_->serialisers, wireFormat, payload.typeIDs.at(0));
    }
    return orThrow(found, wireFormat).getSerialiser(std::move(payload));
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view,
                                              stop_source stopSource) const {
    std::shared_lock const lock(records_->serialiserLock);
    return orThrow(find(records_->serialisers, wireFormat, view.getTypeID()), wireFormat)
        .getSerialiser(std::move(view), std::move(stopSource));
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view) const {
    std::shared_lock const lock(records_->serialiserLock);
    return orThrow(find(records_->serialisers, wireFormat, view.getTypeID()), wireFormat)
        .getSerialiser(std::move(view));
}

GenericDeserialiser Catalogue::getDeserialiserFor(std::string const& wireFormat,
                                                  std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return GenericDeserialiser(std::function<void(std::istream&)>([](std::istream&) {}));
    }
    std::shared_lock const lock(records_->deserialiserLock);
    Deserialiser const* const found =
        findExact<ByTypeIDAndFormat>(records_->deserialisers, wireFormat, typeID);
    if (found == nullptr) {
        throw std::runtime_error("No deserialiser found for " + wireFormat);
    }
    return found->getDeserialiser();
}

bool Catalogue::hasDeserialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return true;
    }
    std::shared_lock const lock(records_->deserialiserLock);
    return findExact<ByTypeIDAndFormat>(records_->deserialisers, wireFormat, typeID) != nullptr;
}

std::vector<std::string>
Catalogue::getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const {
    std::shared_lock const lock(records_->serialiserLock);
    return wireFormats<ByTypeIDs>(records_->serialisers, typeIDs);
}

std::vector<std::string> Catalogue::getSupportedWireFormats(std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return {"builtin"};
    }
    std::shared_lock const lock(records_->serialiserLock);
    return wireFormats<ByTypeID>(records_->serialisers, typeID);
}

std::vector<std::string>
Catalogue::getSupportedDeserialisationWireFormats(std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return {"builtin"};
    }
    if (typeID == core::getTypeID<core::GenericPayload>() ||
        typeID == core::getTypeID<std::istream>()) {
        return {"*"};
    }
    std::shared_lock const lock(records_->deserialiserLock);
    return wireFormats<ByTypeID>(records_->deserialisers, typeID);
}

} // namespace courier::hub::serialisation
