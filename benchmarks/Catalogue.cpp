// SPDX-License-Identifier: Apache-2.0
// Looking records up, on one thread and on two at once, and what a record takes.
#include "Support.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <absl/container/flat_hash_map.h>
#include <absl/synchronization/mutex.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <ostream>
#include <random>
#include <shared_mutex>
#include <unordered_map>
#include <vector>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;

// The keys of the alternatives. They are searched by reference, so that no search copies a text.
struct KeyView {
    std::uint64_t typeID;
    std::string const& wireFormat;
};

struct Key {
    std::uint64_t typeID;
    std::string wireFormat;
    operator KeyView() const noexcept { return {typeID, wireFormat}; }
};

struct KeyEqual {
    using is_transparent = void;
    bool operator()(KeyView const& a, KeyView const& b) const {
        return a.typeID == b.typeID && a.wireFormat == b.wireFormat;
    }
};

struct KeyHash {
    using is_transparent = void;
    std::size_t operator()(KeyView const& key) const {
        return absl::HashOf(key.typeID, key.wireFormat);
    }
};

template <class Value> using HashMap = absl::flat_hash_map<Key, Value, KeyHash, KeyEqual>;
template <class Value> using NodeMap = std::unordered_map<Key, Value, KeyHash, KeyEqual>;

// How a map is locked.
struct SharedMutex {
    mutable std::shared_mutex mutex;
    [[nodiscard]] auto read() const { return std::shared_lock(mutex); }
};
struct AbslMutex {
    mutable absl::Mutex mutex;
    [[nodiscard]] auto read() const { return std::optional<absl::ReaderMutexLock>(&mutex); }
};
struct NoLock {
    [[nodiscard]] int read() const { return 0; }
};

template <template <class> class Map, class Lock, bool byPointer = false> class Peer {
public:
    template <class Record> void add(Record const& record) {
        auto& map = std::get<Of<Record>>(maps_);
        if constexpr (byPointer) {
            map.emplace(Key{record.getTypeID(), record.getWireFormat()},
                        std::make_unique<Record>(record));
        } else {
            map.emplace(Key{record.getTypeID(), record.getWireFormat()}, record);
        }
    }
    bool hasDeserialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
        [[maybe_unused]] auto const lock = lock_.read();
        auto const& map = std::get<Of<Deserialiser>>(maps_);
        return map.find(KeyView{typeID, wireFormat}) != map.end();
    }
    GenericSerialiser getSerialiserFor(std::string const& wireFormat, GenericPayloadView view) const
        requires(!byPointer) {
        [[maybe_unused]] auto const lock = lock_.read();
        return std::get<Of<Serialiser>>(maps_)
            .find(KeyView{view.getTypeID(), wireFormat})
            ->second.getSerialiser(std::move(view));
    }

private:
    template <class Record> using Of =
        Map<std::conditional_t<byPointer, std::unique_ptr<Record>, Record>>;

    std::tuple<Of<Deserialiser>, Of<Serialiser>> maps_;
    Lock lock_;
};

// Each type has a record in each of these.
std::array<std::string, 4> const formats{"cbor", "json", "msgpack", "bson"};

std::vector<std::uint64_t> typesOf(std::size_t records) {
    std::vector<std::uint64_t> typeIDs(records / formats.size());
    std::generate(typeIDs.begin(), typeIDs.end(), std::mt19937_64(records));
    return typeIDs;
}

template <class Records> std::unique_ptr<Records> filled(std::size_t records) {
    auto made = std::make_unique<Records>();
    std::function<GenericPayload(std::istream&)> const read = [](std::istream&) {
        return GenericPayload();
    };
    Serialiser::ViewFactory const makeFromView = [](GenericPayloadView&& view) {
        return GenericSerialiser([view = std::move(view)](stop_token const&, std::ostream& out) {
            out << view.index; // never called
        });
    };
    for (std::uint64_t const id : typesOf(records)) {
        for (std::string const& format : formats) {
            made->add(Deserialiser(format, id, GenericDeserialiser(read)));
            made->add(Serialiser(format, id, {id}, makeFromView, nullptr, nullptr));
        }
    }
    return made;
}

// In random order, and too many for a branch predictor to learn.
struct Queries {
    explicit Queries(std::size_t records) {
        GenericPayload elements; // one of each type
        elements.typeIDs = typesOf(records);
        elements.elementCount = elements.typeIDs.size();
        elements.values.resize(elements.elementCount);
        static std::atomic<std::uint64_t> made = 0; // others for each thread
        std::mt19937_64 random(made++);
        for (Query& query : all) {
            query.element = random() % elements.elementCount;
            query.typeID = elements.typeIDs[query.element];
            query.wireFormat = &formats[random() % formats.size()];
        }
        payload = GenericPayloadWrapperPtr::make(std::move(elements));
    }

    struct Query {
        std::size_t element;
        std::uint64_t typeID;
        std::string const* wireFormat;
    };
    std::vector<Query> all = std::vector<Query>(131072);
    std::size_t next = 0;
    GenericPayloadWrapperPtr payload;
};

// Clients use a catalogue through its interface.
template <class Records> using Interface =
    std::conditional_t<std::same_as<Records, Catalogue>, SerialisationCatalogue, Records>;

template <class Records, std::size_t records, class LookUp>
void addLookUp(Row const& row, char const* who, LookUp lookUp) {
    row.add(who, [=] {
        static std::unique_ptr<Interface<Records>> const shared = filled<Records>(records);
        return [lookUp, queries = Queries(records)]() mutable {
            auto const& query = queries.all[queries.next++ % queries.all.size()];
            lookUp(std::as_const(*shared), query, queries.payload);
        };
    });
}

template <class Records, std::size_t records> void addHas(Row const& row, char const* who) {
    addLookUp<Records, records>(row, who, [](auto& catalogue, auto& query, auto&) {
        require(catalogue.hasDeserialiserFor(*query.wireFormat, query.typeID), "a hit");
    });
}

template <class Records> void addGet(char const* who) {
    addLookUp<Records, 256>(Row("`getSerialiserFor` an element, 256 records"), who,
                            [](auto& catalogue, auto& query, auto& payload) {
                                GenericSerialiser const serialiser = catalogue.getSerialiserFor(
                                    *query.wireFormat, GenericPayloadView(payload, query.element));
                                escape(&serialiser);
                            });
}

template <class Records> void addFew(char const* who) {
    addHas<Records, 256>(Row("`hasDeserialiserFor`, 256 records"), who);
}

template <class Records> void addThreads(char const* who) {
    addHas<Records, 256>(Row("the same, on two threads at once", 1, Kind::threads), who);
}

template <class Records> void addMany(char const* who) {
    constexpr std::size_t records = 100000;
    addHas<Records, records>(Row("`hasDeserialiserFor`, 100,000 records", 1, Kind::timed), who);
    Row("memory of a record, of 100,000 for each direction", 2 * records, Kind::memory)
        .addMade(who, [] { return filled<Records>(records); });
}

} // namespace

void addCatalogue() {
    using Shared = Peer<HashMap, SharedMutex>;
    using Nodes = Peer<NodeMap, SharedMutex>;
    using Unlocked = Peer<HashMap, NoLock>;
    addFew<Catalogue>("courier");
    addFew<Shared>("shared_mutex");
    addFew<Nodes>("unordered_map");
    addFew<Unlocked>("no lock");
    addThreads<Catalogue>("courier");
    addThreads<Shared>("shared_mutex");
    addThreads<Peer<HashMap, AbslMutex>>("absl::Mutex");
    addThreads<Unlocked>("no lock");
    addGet<Catalogue>("courier");
    addGet<Shared>("shared_mutex");
    addGet<Nodes>("unordered_map");
    addGet<Unlocked>("no lock");
    addMany<Catalogue>("courier");
    addMany<Shared>("shared_mutex");
    addMany<Peer<HashMap, SharedMutex, true>>("pointers");
    addMany<Nodes>("unordered_map");
}

} // namespace benchmarks
