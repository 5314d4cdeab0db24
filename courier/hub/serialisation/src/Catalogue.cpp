// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Catalogue.h>

#include "HashIndex.h"
#include "StripedMutex.h"

#include <bedrock/core/diag/terminate.h>

#include <boost/current_function.hpp>

#include <algorithm>
#include <forward_list>
#include <iosfwd>
#include <stdexcept>
#include <tuple>

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

// The wire formats, interned: entries refer to theirs by address, and a search that compares a name
// finds it in the processor's cache, however many records there are.
using Format = std::string const*;
class Formats {
public:
    using Enlarged = HashIndex<Format>;
    [[nodiscard]] Enlarged enlarged() const { return index_.enlarged(); }
    void exchange(Enlarged& larger) noexcept { index_.exchange(larger); }

    // Precondition: there is room. Throws std::bad_alloc; an unused format is harmless.
    Format findOrAdd(std::string const& name) {
        std::uint64_t const hash = hashOf(name);
        Format const* const found =
            index_.find(hash, [&](Format format) { return *format == name; });
        if (found != nullptr) {
            return *found;
        }
        Format const added = &names_.emplace_front(name);
        index_.insert(hash, added);
        return added;
    }

private:
    std::forward_list<std::string> names_;
    HashIndex<Format> index_;
};

// What is looked for: a key and a wire format. Hashed before the lock is taken.
template <class Key> struct Query {
    Query(Key const& k, std::string const& f) noexcept
        : key(k), wireFormat(f), hash(mix(bitsOf(k) ^ hashOf(f))) {}
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

    // Larger indices, which are made while others still search these.
    struct Enlarged;
    [[nodiscard]] Enlarged enlarged() const { return {chains_.enlarged(), exacts_.enlarged()}; }
    void exchange(Enlarged& larger) noexcept {
        chains_.exchange(larger.chains);
        exacts_.exchange(larger.exacts);
    }

    // Precondition: there is room.
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
        Held key{};
        Node<Record>* first = nullptr;
        Node<Record>* last = nullptr;
        explicit operator bool() const noexcept { return first != nullptr; }
    };
    struct Exact {
        Held key{};
        Format format = nullptr;
        Node<Record> const* node = nullptr;
        explicit operator bool() const noexcept { return node != nullptr; }
    };

    static auto is(Key const& key) noexcept {
        return [&key](Chain const& chain) { return look(chain.key) == key; };
    }
    HashIndex<Chain> chains_;
    HashIndex<Exact> exacts_;

public:
    struct Enlarged {
        HashIndex<Chain> chains;
        HashIndex<Exact> exacts;
    };
};

template <class Record> using ByTypeID =
    Order<Record, std::uint64_t, &RecordKeys::typeID<Record>, &Node<Record>::nextByTypeID>;
using ByTypeIDs = Order<Serialiser, std::vector<std::uint64_t>, &RecordKeys::typeIDs,
                        &Node<Serialiser>::nextByTypeIDs>;

// The records of one kind, the orders in which they are found, and their lock.
template <class Record> struct RecordSet {
    StripedMutex mutex;
    Formats formats;
    std::forward_list<Node<Record>> nodes;
    ByTypeID<Record> byTypeID;
};
struct SerialiserSet : RecordSet<Serialiser> {
    ByTypeIDs byTypeIDs;
};
using DeserialiserSet = RecordSet<Deserialiser>;

std::vector<std::uint64_t> listOf(std::uint64_t typeID) { return {typeID}; }
std::vector<std::uint64_t> const& listOf(std::vector<std::uint64_t> const& typeIDs) {
    return typeIDs;
}

template <class Record>
auto const& orderOf(RecordSet<Record> const& set, std::uint64_t /*typeID*/) noexcept {
    return set.byTypeID;
}
auto const& orderOf(SerialiserSet const& set, std::vector<std::uint64_t> const&) noexcept {
    return set.byTypeIDs;
}

// The record under a key in a wire format; for the wildcard, the one registered first under the
// key.
template <class Key> [[gnu::always_inline]] inline Serialiser const*
findAny(SerialiserSet const& set, Query<Key> const& query) noexcept {
    auto const& order = orderOf(set, query.key);
    if (query.wireFormat.size() == 1 && query.wireFormat.front() == '*') {
        auto const* const node = order.first(query.key);
        return node != nullptr ? &node->record : nullptr;
    }
    return order.find(query);
}

template <class Set, class Key> std::vector<std::string> wireFormats(Set& set, Key const& key) {
    StripedMutex::Reader const reading(set.mutex);
    std::vector<std::string> formats;
    auto const& order = orderOf(set, key);
    for (auto const* node = order.first(key); node != nullptr; node = order.after(*node)) {
        formats.push_back(*node->format);
    }
    return formats;
}

// Finds a record and uses it, which may run users' code, under the lock. If there is none, throws
// what `fail` returns, which is made without the lock.
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

// Adds a record to every order of its set. If one of them holds another under the same key and wire
// format, that one is passed to `refuse`, and nothing is moved out of the argument. If memory is
// exhausted, the set is unchanged. What takes long, enlarging the indices, comes before readers are
// excluded.
template <class Record, class Refuse, class... Orders>
void insert(RecordSet<Record>& set, Record& record, Refuse refuse, Orders&... orders) {
    if (set.mutex.isReadHere()) {
        throw std::logic_error("A factory cannot register in the catalogue that has called it");
    }
    StripedMutex::Preparation const preparing(set.mutex);
    Formats::Enlarged formats = set.formats.enlarged();
    std::tuple<typename Orders::Enlarged...> larger(orders.enlarged()...);

    StripedMutex::Writer const writing(set.mutex, preparing);
    Record const* blocking = nullptr;
    static_cast<void>(((blocking = orders.find(record)) || ...));
    if (blocking != nullptr) {
        refuse(*blocking);
        return;
    }
    set.formats.exchange(formats);
    (orders.exchange(std::get<typename Orders::Enlarged>(larger)), ...);
    Format const format = set.formats.findOrAdd(RecordKeys::wireFormat(record));
    Node<Record>& added = set.nodes.emplace_front(std::move(record), format);
    (orders.add(added), ...);
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

SerialisationCatalogue::~SerialisationCatalogue() = default;

Catalogue::Catalogue() : records_(std::make_unique<Records>()) {}

Catalogue::~Catalogue() = default;

void Catalogue::add(Serialiser serialiser) {
    SerialiserSet& set = records_->serialisers;
    auto const refuse = [function = BOOST_CURRENT_FUNCTION](Serialiser const& blocking) {
        if (bedrock_diag_terminate()) {
            std::string const message =
                "Attempted to add duplicate serialiser for " + RecordKeys::wireFormat(blocking);
            bedrock::core::diag::terminate(message, __FILE__, __LINE__, function);
        }
    };
    insert(set, serialiser, refuse, set.byTypeID, set.byTypeIDs);
}

void Catalogue::add(Deserialiser deserialiser) {
    DeserialiserSet& set = records_->deserialisers;
    auto const refuse = [function = BOOST_CURRENT_FUNCTION](Deserialiser const& blocking) {
        if (bedrock_diag_terminate()) {
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
    SerialiserSet& set = records_->serialisers;
    Query const query(payload.typeIDs, wireFormat);
    return lookUp(
        set,
        [&] {
            Serialiser const* const found = findAny(set, query);
            return found != nullptr ? found
                                    : findAny(set, Query(payload.typeIDs.at(0), wireFormat));
        },
        [&](Serialiser const& found) { return found.getSerialiser(std::move(payload)); },
        [&] {
            std::vector<std::string> supported = wireFormats(set, payload.typeIDs);
            for (std::string& format : wireFormats(set, payload.typeIDs.front())) {
                if (std::find(supported.begin(), supported.end(), format) == supported.end()) {
                    supported.push_back(std::move(format));
                }
            }
            return LookUpError("No serialiser found for ", wireFormat, payload.typeIDs,
                               std::move(supported));
        });
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view,
                                              stop_source stopSource) const {
    return lookUpSerialiser(records_->serialisers, view.getTypeID(), wireFormat,
                            [&](Serialiser const& found) {
                                return found.getSerialiser(std::move(view), std::move(stopSource));
                            });
}

GenericSerialiser Catalogue::getSerialiserFor(std::string const& wireFormat,
                                              GenericPayloadView view) const {
    return lookUpSerialiser(
        records_->serialisers, view.getTypeID(), wireFormat,
        [&](Serialiser const& found) { return found.getSerialiser(std::move(view)); });
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
