// SPDX-License-Identifier: Apache-2.0
// Looking records up, on one thread and on several at once.
#include "Support.h"

#include <courier/hub/serialisation/Catalogue.h>

#include <absl/container/flat_hash_map.h>
#include <boost/multi_index/composite_key.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/ordered_index.hpp>
#include <boost/multi_index_container.hpp>

#include <algorithm>
#include <array>
#include <atomic>
#include <map>
#include <mutex>
#include <ostream>
#include <random>
#include <shared_mutex>
#include <thread>
#include <tuple>

namespace benchmarks {
namespace {

using namespace courier::hub::serialisation;
using courier::hub::core::GenericPayload;

// The keys of the peers. They are searched by reference, so that no search copies a text.
struct KeyView {
    std::uint64_t typeID;
    std::string const& wireFormat;
};

struct Key {
    std::uint64_t typeID;
    std::string wireFormat;
    operator KeyView() const noexcept { return {typeID, wireFormat}; }
};

struct KeyLess {
    using is_transparent = void;
    bool operator()(KeyView const& a, KeyView const& b) const {
        return std::tie(a.typeID, a.wireFormat) < std::tie(b.typeID, b.wireFormat);
    }
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

template <class Map> struct MapOf {
    using Value = typename Map::mapped_type;
    Map records;

    void add(Key const& key, Value const& value) { records.emplace(key, value); }
    Value const* find(KeyView const& key) const {
        auto const found = records.find(key);
        return found != records.end() ? &found->second : nullptr;
    }
};
template <class Value> struct OrderedMap : MapOf<std::map<Key, Value, KeyLess>> {};
template <class Value> struct HashMap : MapOf<absl::flat_hash_map<Key, Value, KeyHash, KeyEqual>> {
};

template <class Value> struct MultiIndex {
    struct Record {
        std::uint64_t typeID;
        std::string wireFormat;
        Value value;
    };
    using ByKey = boost::multi_index::composite_key<
        Record, boost::multi_index::member<Record, std::uint64_t, &Record::typeID>,
        boost::multi_index::member<Record, std::string, &Record::wireFormat>>;
    boost::multi_index_container<
        Record, boost::multi_index::indexed_by<boost::multi_index::ordered_unique<ByKey>>>
        records;

    void add(Key const& key, Value const& value) {
        records.insert(Record{key.typeID, key.wireFormat, value});
    }
    Value const* find(KeyView const& key) const {
        auto const found = records.find(std::tie(key.typeID, key.wireFormat));
        return found != records.end() ? &found->value : nullptr;
    }
};

// How an index is locked.
struct OneLock {
    mutable std::shared_mutex mutex;
    [[nodiscard]] auto read() const { return std::shared_lock(mutex); }
};
struct NoLock {
    [[nodiscard]] int read() const { return 0; }
};

template <template <class> class Index, class Guard = OneLock> struct Peer {
    Index<Deserialiser> deserialisers;
    Guard deserialiserGuard;
    Index<Serialiser> serialisers;
    Guard serialiserGuard;

    void add(Deserialiser const& record) {
        deserialisers.add({record.getTypeID(), record.getWireFormat()}, record);
    }
    void add(Serialiser const& record) {
        serialisers.add({record.getTypeID(), record.getWireFormat()}, record);
    }

    bool hasDeserialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
        [[maybe_unused]] auto const lock = deserialiserGuard.read();
        return deserialisers.find({typeID, wireFormat}) != nullptr;
    }
    Serialiser getSerialiserFor(std::string const& wireFormat, std::uint64_t typeID) const {
        [[maybe_unused]] auto const lock = serialiserGuard.read();
        return *serialisers.find({typeID, wireFormat});
    }
    GenericSerialiser getSerialiserFor(std::string const& wireFormat,
                                       GenericPayloadView view) const {
        [[maybe_unused]] auto const lock = serialiserGuard.read();
        return serialisers.find({view.getTypeID(), wireFormat})->getSerialiser(std::move(view));
    }
};

// Clients use a catalogue through its interface.
template <class Records> Records const& interfaceOf(Records const& records) { return records; }
SerialisationCatalogue const& interfaceOf(Catalogue const& catalogue) { return catalogue; }

struct Query {
    std::size_t type;
    std::uint64_t typeID;
    std::string const* wireFormat;
};

// Records of as many types as needed, each in four wire formats, and the order of the queries:
// random, and too long for a branch predictor to learn.
struct Contents {
    explicit Contents(std::size_t records) : typeIDs(records / formats.size()) {
        std::mt19937_64 random(records);
        std::generate(typeIDs.begin(), typeIDs.end(), std::ref(random));
        for (Query& query : queries) {
            query.type = random() % typeIDs.size();
            query.typeID = typeIDs[query.type];
            query.wireFormat = &formats[random() % formats.size()];
        }
        GenericPayload elements;
        elements.typeIDs = typeIDs;
        elements.values.resize(typeIDs.size());
        elements.elementCount = typeIDs.size();
        payload = GenericPayloadWrapperPtr(new GenericPayloadWrapper(std::move(elements)));
    }

    static inline std::array<std::string, 4> const formats{"cbor", "json", "msgpack", "bson"};
    std::vector<std::uint64_t> typeIDs;
    std::vector<Query> queries = std::vector<Query>(131072);
    GenericPayloadWrapperPtr payload; // one element of each type
};

// Made at the first use, and once for all benchmarks of a number of records.
template <class Made> Made const& sharedFor(std::size_t records, auto make) {
    static std::mutex mutex;
    static std::map<std::size_t, std::unique_ptr<Made>> all;
    std::lock_guard const lock(mutex);
    std::unique_ptr<Made>& made = all[records];
    if (!made) {
        made = make();
    }
    return *made;
}

Contents const& contentsOf(std::size_t records) {
    return sharedFor<Contents>(records, [=] { return std::make_unique<Contents>(records); });
}

GenericSerialiser makeFromView(GenericPayloadView&& view) {
    return GenericSerialiser([view = std::move(view)](stop_token, std::ostream& out) {
        out << view.index; // never called
    });
}

// A record whose factories hold state of this size.
template <std::size_t words> Serialiser makeRecord(std::string const& format, std::uint64_t typeID,
                                                   Serialiser::ViewFactory makeForView) {
    std::array<std::uint64_t, words> const state{};
    return Serialiser(
        format, typeID, {typeID}, std::move(makeForView),
        [state](GenericPayloadView&&, stop_source&&) { return keep(&state), GenericSerialiser(); },
        [state](GenericPayload&&) { return keep(&state), GenericSerialiser(); });
}

template <class Records> Records const& filled(std::size_t records) {
    return sharedFor<Records>(records, [=] {
        auto made = std::make_unique<Records>();
        std::function<GenericPayload(std::istream&)> const read = [](std::istream&) {
            return GenericPayload();
        };
        for (std::uint64_t const id : contentsOf(records).typeIDs) {
            for (std::string const& format : Contents::formats) {
                made->add(Deserialiser(format, id, GenericDeserialiser(read)));
                made->add(makeRecord<0>(format, id, makeFromView));
            }
        }
        return made;
    });
}

// Adds one kind of look-up: `look(subject, query, contents)`.
benchmark::internal::Benchmark* addLookUp(char const* work, std::size_t records, char const* who,
                                          auto subject, auto look) {
    auto const make = [=] {
        static std::atomic<std::size_t> threads = 0; // each thread starts at another query
        return [&subject = subject(records), look, &contents = contentsOf(records),
                next = threads++ * 7919]() mutable {
            look(subject, contents.queries[next++ % contents.queries.size()], contents);
        };
    };
    // With more records, more of the time is spent waiting for memory.
    return addCounted(name(work, records, who), make, 1, records <= 256);
}

// By the clock, on one thread, two and so on, up to the number of cores.
void onThreads(benchmark::internal::Benchmark* benchmark) {
    benchmark->UseRealTime();
    for (unsigned threads = 1; threads <= std::thread::hardware_concurrency(); threads *= 2) {
        benchmark->Threads(static_cast<int>(threads));
    }
}

template <class Records> void addLookUps(std::size_t records, char const* who) {
    auto const subject = [](std::size_t n) -> auto& { return interfaceOf(filled<Records>(n)); };
    onThreads(addLookUp(
        "has", records, who, subject, [](auto& catalogue, Query const& query, Contents const&) {
            require(catalogue.hasDeserialiserFor(*query.wireFormat, query.typeID), "a hit");
        }));
    addLookUp("get_record", records, who, subject,
              [](auto& catalogue, Query const& query, Contents const&) {
                  Serialiser const record =
                      catalogue.getSerialiserFor(*query.wireFormat, query.typeID);
                  escape(&record);
              });
    addLookUp("get_for_view", records, who, subject,
              [](auto& catalogue, Query const& query, Contents const& contents) {
                  GenericSerialiser const serialiser = catalogue.getSerialiserFor(
                      *query.wireFormat, GenericPayloadView(contents.payload, query.type));
                  escape(&serialiser);
              });
}

// A record whose name and factories are too large for the objects that hold them.
void addHeavyRecord() {
    add("get_heavy_record/1/courier", [] {
        auto catalogue = std::make_unique<Catalogue>();
        std::string const format = "application/vnd.courier.document+cbor";
        std::array<std::uint64_t, 4> const state{};
        catalogue->add(makeRecord<4>(format, 1, [state](GenericPayloadView&&) {
            return keep(&state), GenericSerialiser();
        }));
        return [catalogue = std::move(catalogue), format] {
            Serialiser const record = catalogue->getSerialiserFor(format, std::uint64_t{1});
            escape(&record);
        };
    });
}

Family const catalogue([] {
    for (std::size_t const records : {16U, 256U, 4096U, 100000U}) {
        addLookUps<Catalogue>(records, "courier");
        addLookUps<Peer<MultiIndex>>(records, "multi_index");
        addLookUps<Peer<OrderedMap>>(records, "map");
        addLookUps<Peer<HashMap>>(records, "flat_hash_map");
        addLookUps<Peer<HashMap, NoLock>>(records, "limit");
        // What one lock costs by itself, and the factory.
        static OneLock const lock;
        onThreads(addLookUp(
            "has", records, "shared_mutex", [](std::size_t) -> auto& { return lock; },
            [](auto& guard, Query const&, Contents const&) {
                auto const held = guard.read();
                escape(&held);
            }));
        static Serialiser::ViewFactory const factory = makeFromView;
        addLookUp(
            "factory", records, "courier", [](std::size_t) -> auto& { return factory; },
            [](auto& make, Query const& query, Contents const& contents) {
                GenericSerialiser const serialiser =
                    make(GenericPayloadView(contents.payload, query.type));
                escape(&serialiser);
            });
    }
    addHeavyRecord();
});

} // namespace
} // namespace benchmarks
