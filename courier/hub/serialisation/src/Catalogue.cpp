// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Catalogue.h>

#include "HashIndex.h"
#include "StripedMutex.h"

#include <bedrock/core/diag/terminate.h>

#include <boost/current_function.hpp>

#include <algorithm>
#include <cstdio>
#include <forward_list>
#include <iosfwd>
#include <stdexcept>
#include <tuple>
#include <type_traits>
#include <utility>

namespace courier::hub::serialisation {

using TypeIDs = std::vector<std::uint64_t>;

// Reads the keys of a record in place: the getters copy, and a search must not.
struct RecordKeys {
    template <class Record> static std::string const& wireFormat(Record const& record) noexcept {
        return record.wireFormat_;
    }
    // A record has two keys: its type identifier and, in a Serialiser, its list of identifiers.
    template <class Key, class Record> static Key const& key(Record const& record) noexcept {
        if constexpr (std::is_same_v<Key, TypeIDs>) {
            return record.typeIDs_;
        } else {
            return record.typeID_;
        }
    }
};

namespace {

// A key and a wire format to look up. Hashed before the lock is taken.
template <class Key> struct Query {
    Query(Key const& k, std::string const& f) noexcept
        : key(k), wireFormat(f), hash(mix(bitsOf(k) ^ hashOf(f))) {}
    Key const& key;
    std::string const& wireFormat;
    std::uint64_t hash;
};

// A record. The records under one key form a ring, in order of registration.
template <class Record> struct Node {
    explicit Node(Record&& r) : record(std::move(r)) {}
    template <class Key> Node*& next() noexcept {
        return std::is_same_v<Key, TypeIDs> ? nextByTypeIDs : nextByTypeID;
    }
    Record record;
    Node* nextByTypeID = this;
    Node* nextByTypeIDs = this;
};

// The records of one kind by one of their keys: a type identifier, or a list of them.
template <class Record, class Key> class Index {
    using Address = Node<Record>*;

public:
    // The record under a key in a wire format, or null.
    [[nodiscard]] Record const* find(Query<Key> const& query) const noexcept {
        Address const* const found = records_.find(query.hash, [&](Address node) {
            return RecordKeys::key<Key>(node->record) == query.key &&
                   RecordKeys::wireFormat(node->record) == query.wireFormat;
        });
        return found != nullptr ? &(*found)->record : nullptr;
    }
    // The record under the key and in the wire format of another one, or null.
    [[nodiscard]] Record const* find(Record const& record) const noexcept {
        return find(Query<Key>(RecordKeys::key<Key>(record), RecordKeys::wireFormat(record)));
    }

    // The record registered first under a key, or null.
    [[nodiscard]] Record const* first(Key const& key) const noexcept {
        Address const* const last = lasts_.find(hashOf(key), is(key));
        return last != nullptr ? &next(*last)->record : nullptr;
    }

    // The wire formats of the records under a key, in order of registration.
    [[nodiscard]] std::vector<std::string> wireFormats(Key const& key) const {
        std::vector<std::string> formats;
        if (Address const* const last = lasts_.find(hashOf(key), is(key)); last != nullptr) {
            Address node = *last;
            do {
                node = next(node);
                formats.push_back(RecordKeys::wireFormat(node->record));
            } while (node != *last);
        }
        return formats;
    }

    // Larger tables, which are made while readers still search these.
    struct Enlarged {
        HashIndex<Address> records;
        HashIndex<Address> lasts;
    };
    [[nodiscard]] Enlarged enlarged() const { return {records_.enlarged(), lasts_.enlarged()}; }
    void exchange(Enlarged& larger) noexcept {
        records_.exchange(larger.records);
        lasts_.exchange(larger.lasts);
    }

    // Precondition: there is room.
    void add(Node<Record>& node) noexcept {
        Key const& key = RecordKeys::key<Key>(node.record);
        records_.insert(Query<Key>(key, RecordKeys::wireFormat(node.record)).hash, &node);
        if (Address* const last = lasts_.find(hashOf(key), is(key)); last != nullptr) {
            next(&node) = std::exchange(next(*last), &node);
            *last = &node;
        } else {
            lasts_.insert(hashOf(key), &node);
        }
    }

private:
    static Address& next(Address node) noexcept { return node->template next<Key>(); }
    static auto is(Key const& key) noexcept {
        return [&key](Address node) { return RecordKeys::key<Key>(node->record) == key; };
    }

    HashIndex<Address> records_; // every record, by key and wire format
    HashIndex<Address> lasts_;   // of each ring, the record registered last, by key
};

// The records of one kind, their indices and their lock.
template <class Record> struct RecordSet {
    StripedMutex mutex;
    std::forward_list<Node<Record>> nodes;
    Index<Record, std::uint64_t> byTypeID;
};
struct SerialiserSet : RecordSet<Serialiser> {
    Index<Serialiser, TypeIDs> byTypeIDs;
};
using DeserialiserSet = RecordSet<Deserialiser>;

TypeIDs listOf(std::uint64_t typeID) { return {typeID}; }
TypeIDs const& listOf(TypeIDs const& typeIDs) { return typeIDs; }

template <class Record>
auto const& indexOf(RecordSet<Record> const& set, std::uint64_t /*typeID*/) noexcept {
    return set.byTypeID;
}
auto const& indexOf(SerialiserSet const& set, TypeIDs const& /*typeIDs*/) noexcept {
    return set.byTypeIDs;
}

// The record under a key in a wire format; for "*", the one registered first under the key.
template <class Key> [[gnu::always_inline]] inline Serialiser const*
findAny(SerialiserSet const& set, Query<Key> const& query) noexcept {
    auto const& index = indexOf(set, query.key);
    bool const isWildcard = query.wireFormat.size() == 1 && query.wireFormat.front() == '*';
    return isWildcard ? index.first(query.key) : index.find(query);
}

template <class Set, class Key> std::vector<std::string> wireFormats(Set& set, Key const& key) {
    StripedMutex::Reader const reading(set.mutex);
    return indexOf(set, key).wireFormats(key);
}

// Finds a record and uses it under the lock, which may run users' code. If there is none, throws
// the result of `fail`, which is made without the lock.
template <class Set, class Find, class Use, class Fail>
auto lookUp(Set& set, Find find, Use use, Fail fail) {
    {
        StripedMutex::CallingReader const reading(set.mutex);
        if (auto const* const found = find()) {
            return use(*found);
        }
    }
    throw fail();
}

// The look-ups of serialisers by one key.
template <class Key, class Use>
auto lookUpSerialiser(SerialiserSet& set, Key const& key, std::string const& wireFormat, Use use) {
    Query const query(key, wireFormat);
    return lookUp(
        set, [&] { return findAny(set, query); }, use,
        [&] {
            return LookUpError("No serialiser found for ", wireFormat, listOf(key),
                               wireFormats(set, key));
        });
}

// Adds a record to all indices of its set. A record under the same key and wire format is passed to
// `refuse` instead; nothing is then moved out of the argument. If memory is exhausted, the set is
// unchanged. Enlarging the indices takes long, so it comes before readers are excluded.
template <class Record, class Refuse, class... Indices>
void insert(RecordSet<Record>& set, Record& record, Refuse refuse, Indices&... indices) {
    if (set.mutex.isReadHere()) {
        throw std::logic_error("A factory cannot register in the catalogue that has called it");
    }
    StripedMutex::Preparation const preparing(set.mutex);
    std::tuple<typename Indices::Enlarged...> larger(indices.enlarged()...);

    StripedMutex::Writer const writing(set.mutex, preparing);
    Record const* blocking = nullptr;
    static_cast<void>(((blocking = indices.find(record)) || ...));
    if (blocking != nullptr) {
        refuse(*blocking);
        return;
    }
    Node<Record>& added = set.nodes.emplace_front(std::move(record));
    (indices.exchange(std::get<typename Indices::Enlarged>(larger)), ...);
    (indices.add(added), ...);
}

// What a factory's own look-ups throw does not concern the look-up that called it.
template <class CallFactory> GenericSerialiser made(CallFactory callFactory) {
    try {
        return callFactory();
    } catch (LookUpError& error) {
        error.setThrownByFactory();
        throw;
    }
}

std::string hex(std::uint64_t typeID) {
    char text[20];
    std::snprintf(text, sizeof(text), "0x%llX", static_cast<unsigned long long>(typeID));
    return text;
}

std::string joined(std::vector<std::string> const& texts) {
    std::string all;
    for (std::string const& text : texts) {
        all += (all.empty() ? "" : ", ") + text;
    }
    return all;
}

// A line of its own, because the diagnostic's text is part of the interface.
template <class Record> void printKeys(Record const& first, Record const& duplicate) {
    std::fprintf(
        stderr,
        "courier::hub::serialisation: registered first for type identifier %s, now for %s\n",
        hex(RecordKeys::key<std::uint64_t>(first)).c_str(),
        hex(RecordKeys::key<std::uint64_t>(duplicate)).c_str());
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
    DeserialiserSet deserialisers;
};

struct LookUpError::Details {
    std::string wireFormat;
    std::vector<std::uint64_t> typeIDs;
    std::vector<std::string> supported;
};

LookUpError::LookUpError(std::string const& what, std::string wireFormat,
                         std::vector<std::uint64_t> typeIDs, std::vector<std::string> supported)
    : std::runtime_error(what + wireFormat),
      details_(std::make_shared<Details>(
          Details{std::move(wireFormat), std::move(typeIDs), std::move(supported)})) {}

LookUpError::LookUpError(LookUpError const&) noexcept = default;
LookUpError& LookUpError::operator=(LookUpError const&) noexcept = default;
LookUpError::~LookUpError() = default;

std::string const& LookUpError::wireFormat() const noexcept { return details_->wireFormat; }

std::vector<std::uint64_t> const& LookUpError::typeIDs() const noexcept {
    return details_->typeIDs;
}

std::uint64_t LookUpError::typeID() const noexcept {
    return details_->typeIDs.empty() ? 0 : details_->typeIDs.front();
}

std::vector<std::string> const& LookUpError::supportedWireFormats() const noexcept {
    return details_->supported;
}

std::string LookUpError::explain() const {
    std::vector<std::string> ids;
    for (std::uint64_t const id : typeIDs()) {
        ids.push_back(hex(id));
    }
    std::string text = what();
    text += element_ ? ", for element " + std::to_string(*element_) : "";
    text += (ids.size() == 1 ? ", type identifier " : ", type identifiers ");
    text += ids.empty() ? "none" : joined(ids);
    if (supportedWireFormats().empty()) {
        return text + ". Nothing is registered for that. Check that the module of the type was "
                      "loaded and has registered in this catalogue, and that the element is a "
                      "std::shared_ptr to the very type that the module registers, not to a base "
                      "class or to another pointer.";
    }
    return text + ". Registered for that: " + joined(supportedWireFormats()) +
           ". Check how the wire format is spelt, and that the module that registers it was "
           "loaded.";
}

void LookUpError::setElement(std::size_t index) noexcept {
    if (!isThrownByFactory_) {
        element_ = index;
    }
}

SerialisationCatalogue::~SerialisationCatalogue() = default;

Catalogue::Catalogue() : records_(std::make_unique<Records>()) {}

Catalogue::~Catalogue() = default;

void Catalogue::add(Serialiser serialiser) {
    SerialiserSet& set = records_->serialisers;
    auto const refuse = [&serialiser,
                         function = BOOST_CURRENT_FUNCTION](Serialiser const& blocking) {
        if (bedrock_diag_terminate()) {
            printKeys(blocking, serialiser);
            std::string const message =
                "Attempted to add duplicate serialiser for " + RecordKeys::wireFormat(blocking);
            bedrock::core::diag::terminate(message, __FILE__, __LINE__, function);
        }
    };
    insert(set, serialiser, refuse, set.byTypeID, set.byTypeIDs);
}

void Catalogue::add(Deserialiser deserialiser) {
    DeserialiserSet& set = records_->deserialisers;
    auto const refuse = [&deserialiser,
                         function = BOOST_CURRENT_FUNCTION](Deserialiser const& blocking) {
        if (bedrock_diag_terminate()) {
            printKeys(blocking, deserialiser);
            std::string const message =
                "Attempted to add duplicate deserialiser for " + RecordKeys::wireFormat(blocking);
            bedrock::core::diag::terminate(message, __FILE__, __LINE__, function);
        }
    };
    insert(set, deserialiser, refuse, set.byTypeID);
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                       std::vector<std::uint64_t> const& typeIDs) const {
    return lookUpSerialiser(records_->serialisers, typeIDs, wireFormat,
                            [](Serialiser const& found) { return found; });
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return makeVoidSerialiser(wireFormat);
    }
    return lookUpSerialiser(records_->serialisers, typeID, wireFormat,
                            [](Serialiser const& found) { return found; });
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              core::GenericPayload payload) const {
    if (payload.values.empty()) {
        return GenericSerialiser();
    }
    TypeIDs const& typeIDs = payload.typeIDs;
    SerialiserSet& set = records_->serialisers;
    Query const query(typeIDs, wireFormat);
    return lookUp(
        set,
        [&] {
            Serialiser const* const found = findAny(set, query);
            if (found == nullptr && typeIDs.empty()) {
                core::detail::throwNoElement(0, payload.elementCount, 0, payload.values.size());
            }
            return found != nullptr ? found : findAny(set, Query(typeIDs[0], wireFormat));
        },
        [&](Serialiser const& found) { return found.getSerialiser(std::move(payload)); },
        [&] {
            std::vector<std::string> supported = wireFormats(set, typeIDs);
            for (std::string& format : wireFormats(set, typeIDs.front())) {
                if (std::find(supported.begin(), supported.end(), format) == supported.end()) {
                    supported.push_back(std::move(format));
                }
            }
            return LookUpError("No serialiser found for ", wireFormat, typeIDs,
                               std::move(supported));
        });
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view,
                                              stop_source stopSource) const {
    return lookUpSerialiser(
        records_->serialisers, view.getTypeID(), wireFormat, [&](Serialiser const& found) {
            return made(
                [&] { return found.getSerialiser(std::move(view), std::move(stopSource)); });
        });
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view) const {
    return lookUpSerialiser(records_->serialisers, view.getTypeID(), wireFormat,
                            [&](Serialiser const& found) {
                                return made([&] { return found.getSerialiser(std::move(view)); });
                            });
}

GenericDeserialiser Catalogue::getDeserialiserFor(std::string const& wireFormat,
                                                  std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return GenericDeserialiser([](std::istream&) {});
    }
    DeserialiserSet& set = records_->deserialisers;
    Query const query(typeID, wireFormat);
    return lookUp(
        set, [&] { return set.byTypeID.find(query); },
        [](Deserialiser const& found) { return found.getDeserialiser(); },
        [&] {
            return LookUpError("No deserialiser found for ", wireFormat, {typeID},
                               wireFormats(set, typeID));
        });
}

bool Catalogue::hasDeserialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return true;
    }
    Query const query(typeID, wireFormat);
    StripedMutex::Reader const reading(records_->deserialisers.mutex);
    return records_->deserialisers.byTypeID.find(query) != nullptr;
}

std::vector<std::string>
Catalogue::getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const {
    return wireFormats(records_->serialisers, typeIDs);
}

std::vector<std::string> Catalogue::getSupportedWireFormats(std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return {"builtin"};
    }
    return wireFormats(records_->serialisers, typeID);
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
    return wireFormats(records_->deserialisers, typeID);
}

} // namespace courier::hub::serialisation
