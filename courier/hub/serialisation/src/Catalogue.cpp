// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Catalogue.h>

#include "HashIndex.h"
#include "StripedMutex.h"

#include <bedrock/core/diag/terminate.h>

#include <boost/current_function.hpp>

#include <forward_list>
#include <iosfwd>
#include <mutex>
#include <shared_mutex>
#include <stdexcept>

namespace courier::hub::serialisation {

// The keys of the records, by reference: the getters copy, and a search may not.
struct RecordKeys {
    template <class Record> static std::string const& wireFormat(Record const& record) noexcept {
        return record.wireFormat_;
    }
    template <class Record> static std::uint64_t const& typeID(Record const& record) noexcept {
        return record.typeID_;
    }
    static std::vector<std::uint64_t> const& typeIDs(Serialiser const& record) noexcept {
        return record.typeIDs_;
    }
};

namespace {

// The wire formats, each kept once: entries name theirs by address, and a search that compares a
// name finds it in the processor's cache, however many records there are.
using Format = std::string const*;
class Formats {
public:
    // Throws std::bad_alloc; a format without records tells nobody anything.
    Format findOrAdd(std::string const& name) {
        std::uint64_t const hash = hashOf(name);
        Format const* const found =
            index_.find(hash, [&](Format format) { return *format == name; });
        if (found != nullptr) {
            return *found;
        }
        index_.reserveOne([](Format format) { return hashOf(*format); });
        Format const added = &names_.emplace_front(name);
        index_.insert(hash, added);
        return added;
    }

private:
    std::forward_list<std::string> names_;
    HashIndex<Format> index_;
};

// What is looked for: a key and a wire format. Hashing comes before the lock is taken.
template <class Key> struct Query {
    Query(Key const& k, std::string const& f) noexcept
        : key(k), wireFormat(f), hash(stir(hashOf(k) ^ hashOf(f))) {}
    Key const& key;
    std::string const& wireFormat;
    std::uint64_t hash;
};

// A record, and the ones registered next under the same type identifier and under the same list.
template <class Record> struct Node {
    Node(Record&& r, Format f) : record(std::move(r)), format(f) {}
    Record record;
    Format format;
    Node* nextByTypeID = nullptr;
    Node* nextByTypeIDs = nullptr;
};

// How an index holds a key: an identifier itself, so that a search has no pointer to follow, and a
// list by the address that it has in its record.
std::uint64_t hold(std::uint64_t typeID) noexcept { return typeID; }
std::vector<std::uint64_t> const* hold(std::vector<std::uint64_t> const& typeIDs) noexcept {
    return &typeIDs;
}
std::uint64_t look(std::uint64_t typeID) noexcept { return typeID; }
std::vector<std::uint64_t> const& look(std::vector<std::uint64_t> const* typeIDs) noexcept {
    return *typeIDs;
}

// The records of one kind by one of their keys: by the key alone, in order of registration, and by
// the key and the wire format, where there is one at most.
template <class Record, class Key, Key const& (*keyOf)(Record const&) noexcept,
          Node<Record>* Node<Record>::*next>
class Order {
public:
    // The first record registered under the key.
    [[nodiscard]] Node<Record> const* first(Key const& key) const noexcept {
        Chain const* const chain = chains_.find(hashOf(key), is(key));
        return chain != nullptr ? chain->first : nullptr;
    }
    // The one registered next under the same key.
    [[nodiscard]] static Node<Record> const* after(Node<Record> const& node) noexcept {
        return node.*next;
    }

    // The record under a key in a wire format, or under those of another record.
    [[nodiscard]] Record const* find(Query<Key> const& query) const noexcept {
        Exact const* const exact = exacts_.find(query.hash, [&](Exact const& candidate) {
            return look(candidate.key) == query.key && *candidate.format == query.wireFormat;
        });
        return exact != nullptr ? &exact->node->record : nullptr;
    }
    [[nodiscard]] Record const* find(Record const& record) const noexcept {
        return find(Query<Key>(keyOf(record), RecordKeys::wireFormat(record)));
    }

    // Makes room for one more record, so that add() cannot fail. Throws std::bad_alloc.
    void reserveOne() {
        chains_.reserveOne([](Chain const& chain) { return hashOf(look(chain.key)); });
        exacts_.reserveOne(
            [](Exact const& exact) { return Query<Key>(look(exact.key), *exact.format).hash; });
    }

    void add(Node<Record>& node) noexcept {
        Key const& key = keyOf(node.record);
        if (Chain* const chain = chains_.find(hashOf(key), is(key)); chain != nullptr) {
            chain->last->*next = &node;
            chain->last = &node;
        } else {
            chains_.insert(hashOf(key), {hold(key), &node, &node});
        }
        exacts_.insert(Query<Key>(key, *node.format).hash, {hold(key), node.format, &node});
    }

private:
    using Held = decltype(hold(std::declval<Key const&>()));
    struct Chain {
        Held key;
        Node<Record>* first;
        Node<Record>* last;
    };
    struct Exact {
        Held key;
        Format format;
        Node<Record> const* node;
    };

    static auto is(Key const& key) noexcept {
        return [&key](Chain const& chain) { return look(chain.key) == key; };
    }
    HashIndex<Chain> chains_;
    HashIndex<Exact> exacts_;
};

template <class Record> using ByTypeID =
    Order<Record, std::uint64_t, &RecordKeys::typeID<Record>, &Node<Record>::nextByTypeID>;
using ByTypeIDs = Order<Serialiser, std::vector<std::uint64_t>, &RecordKeys::typeIDs,
                        &Node<Serialiser>::nextByTypeIDs>;

// The records of one kind, the orders in which they are found, and their lock.
template <class Record> struct RecordSet {
    mutable StripedMutex mutex;
    Formats formats;
    std::forward_list<Node<Record>> nodes;
    ByTypeID<Record> byTypeID;
};
struct SerialiserSet : RecordSet<Serialiser> {
    ByTypeIDs byTypeIDs;
};
using DeserialiserSet = RecordSet<Deserialiser>;

template <class Record>
auto const& orderOf(RecordSet<Record> const& set, std::uint64_t /*typeID*/) noexcept {
    return set.byTypeID;
}
auto const& orderOf(SerialiserSet const& set, std::vector<std::uint64_t> const&) noexcept {
    return set.byTypeIDs;
}

// The record under a key in a wire format; for the wildcard, the one registered first under the
// key.
template <class Key>
Serialiser const* findAny(SerialiserSet const& set, Query<Key> const& query) noexcept {
    auto const& order = orderOf(set, query.key);
    if (query.wireFormat.size() == 1 && query.wireFormat.front() == '*') {
        auto const* const node = order.first(query.key);
        return node != nullptr ? &node->record : nullptr;
    }
    return order.find(query);
}

Serialiser const& orThrow(Serialiser const* found, std::string const& wireFormat) {
    if (found == nullptr) {
        throw std::runtime_error("No serialiser found for " + wireFormat);
    }
    return *found;
}

template <class Set, class Key>
std::vector<std::string> wireFormats(Set const& set, Key const& key) {
    std::vector<std::string> formats;
    auto const& order = orderOf(set, key);
    for (auto const* node = order.first(key); node != nullptr; node = order.after(*node)) {
        formats.push_back(*node->format);
    }
    return formats;
}

// Adds a record to every order of its set, unless one of them holds another under the same key and
// wire format: that one is returned, and nothing has been moved out of the argument. When memory
// runs out, the set is as before.
template <class Record, class... Orders>
Record const* insert(RecordSet<Record>& set, Record& record, Orders&... orders) {
    Record const* blocking = nullptr;
    static_cast<void>(((blocking = orders.find(record)) || ...));
    if (blocking != nullptr) {
        return blocking;
    }
    Format const format = set.formats.findOrAdd(RecordKeys::wireFormat(record));
    (orders.reserveOne(), ...);
    Node<Record>& added = set.nodes.emplace_front(std::move(record), format);
    (orders.add(added), ...);
    return nullptr;
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

SerialisationCatalogue::~SerialisationCatalogue() = default;

Catalogue::Catalogue() : records_(std::make_unique<Records>()) {}

Catalogue::~Catalogue() = default;

void Catalogue::add(Serialiser serialiser) {
    SerialiserSet& set = records_->serialisers;
    std::lock_guard const lock(set.mutex);
    auto const* const blocking = insert(set, serialiser, set.byTypeID, set.byTypeIDs);
    if (blocking != nullptr && bedrock_diag_terminate()) {
        bedrock::core::diag::terminate("Attempted to add duplicate serialiser for " +
                                           RecordKeys::wireFormat(*blocking),
                                       __FILE__, __LINE__, BOOST_CURRENT_FUNCTION);
    }
}

void Catalogue::add(Deserialiser deserialiser) {
    DeserialiserSet& set = records_->deserialisers;
    std::lock_guard const lock(set.mutex);
    auto const* const blocking = insert(set, deserialiser, set.byTypeID);
    if (blocking != nullptr && bedrock_diag_terminate()) {
        bedrock::core::diag::terminate("Attempted to add duplicate deserialiser for " +
                                           RecordKeys::wireFormat(*blocking),
                                       __FILE__, __LINE__, BOOST_CURRENT_FUNCTION);
    }
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                       std::vector<std::uint64_t> const& typeIDs) const {
    Query const query(typeIDs, wireFormat);
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    return orThrow(findAny(records_->serialisers, query), wireFormat);
}

Serialiser Catalogue::getSerialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return makeVoidSerialiser(wireFormat);
    }
    Query const query(typeID, wireFormat);
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    return orThrow(findAny(records_->serialisers, query), wireFormat);
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              core::GenericPayload payload) const {
    if (payload.values.empty()) {
        return GenericSerialiser();
    }
    Query const query(payload.typeIDs, wireFormat);
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    Serialiser const* found = findAny(records_->serialisers, query);
    if (found == nullptr) {
        found = findAny(records_->serialisers, Query(payload.typeIDs.at(0), wireFormat));
    }
    return orThrow(found, wireFormat).getSerialiser(std::move(payload));
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view,
                                              stop_source stopSource) const {
    std::uint64_t const typeID = view.getTypeID();
    Query const query(typeID, wireFormat);
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    return orThrow(findAny(records_->serialisers, query), wireFormat)
        .getSerialiser(std::move(view), std::move(stopSource));
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view) const {
    std::uint64_t const typeID = view.getTypeID();
    Query const query(typeID, wireFormat);
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    return orThrow(findAny(records_->serialisers, query), wireFormat)
        .getSerialiser(std::move(view));
}

GenericDeserialiser Catalogue::getDeserialiserFor(std::string const& wireFormat,
                                                  std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return GenericDeserialiser(std::function<void(std::istream&)>([](std::istream&) {}));
    }
    Query const query(typeID, wireFormat);
    std::shared_lock const lock(records_->deserialisers.mutex.mine());
    Deserialiser const* const found = records_->deserialisers.byTypeID.find(query);
    if (found == nullptr) {
        throw std::runtime_error("No deserialiser found for " + wireFormat);
    }
    return found->getDeserialiser();
}

bool Catalogue::hasDeserialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return true;
    }
    Query const query(typeID, wireFormat);
    std::shared_lock const lock(records_->deserialisers.mutex.mine());
    return records_->deserialisers.byTypeID.find(query) != nullptr;
}

std::vector<std::string>
Catalogue::getSupportedWireFormats(std::vector<std::uint64_t> const& typeIDs) const {
    std::shared_lock const lock(records_->serialisers.mutex.mine());
    return wireFormats(records_->serialisers, typeIDs);
}

std::vector<std::string> Catalogue::getSupportedWireFormats(std::uint64_t typeID) const {
    if (typeID == core::getTypeID<void>()) {
        return {"builtin"};
    }
    std::shared_lock const lock(records_->serialisers.mutex.mine());
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
    std::shared_lock const lock(records_->deserialisers.mutex.mine());
    return wireFormats(records_->deserialisers, typeID);
}

} // namespace courier::hub::serialisation
