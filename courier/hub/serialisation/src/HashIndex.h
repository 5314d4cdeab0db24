// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_HASH_INDEX_H
#define COURIER_HUB_SERIALISATION_HASH_INDEX_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>
#include <utility>
#include <vector>

namespace courier::hub::serialisation {

/// Mixes all bits into the upper half and folds them back into the lower. Keys and texts use
/// different multipliers, so that mixing a key cannot cancel the mixing of a text.
constexpr std::uint64_t mix(std::uint64_t x,
                            std::uint64_t multiplier = 0x9E3779B97F4A7C15) noexcept {
    x *= multiplier;
    return x ^ (x >> 32);
}

inline std::uint64_t hashOf(std::uint64_t x) noexcept { return mix(x); }
inline std::uint64_t bitsOf(std::uint64_t x) noexcept { return x; } // mixed together with others

inline std::uint64_t hashOf(std::vector<std::uint64_t> const& list) noexcept {
    std::uint64_t hash = list.size();
    for (std::uint64_t const x : list) {
        hash = mix(hash ^ x);
    }
    return hash;
}
inline std::uint64_t bitsOf(std::vector<std::uint64_t> const& list) noexcept {
    return hashOf(list);
}

// A std::memcpy of constant length compiles to a single load.
template <class Word> std::uint64_t load(char const* from) noexcept {
    Word word;
    std::memcpy(&word, from, sizeof(word));
    return word;
}

inline std::uint64_t hashOf(std::string_view text) noexcept {
    constexpr std::uint64_t multiplier = 0xD6E8FEB86659FD93;
    std::uint64_t hash = text.size();
    for (; text.size() > 8; text.remove_prefix(8)) {
        hash = mix(hash ^ load<std::uint64_t>(text.data()), multiplier);
    }
    if (text.size() >= 4) { // the two loads overlap if it is shorter than 8
        hash ^= load<std::uint32_t>(text.data()) << 32 |
                load<std::uint32_t>(text.data() + text.size() - 4);
    } else {
        for (char const c : text) {
            hash = hash << 8 ^ static_cast<unsigned char>(c);
        }
    }
    return mix(hash, multiplier);
}

/// A hash table of small entries that are never removed, by open addressing. It stores hashes, not
/// keys: the caller compares keys. An empty entry converts to false. At most a quarter full, so
/// that a search usually reads one slot. If all hashes collide, a search is linear; that is
/// accepted, because keys come from a program's modules, not from the bytes that they read.
template <class Entry> class HashIndex {
public:
    /// The entry with this hash that `matches`, or null. Constant on average; allocates nothing.
    template <class Matches>
    [[nodiscard]] Entry const* find(std::uint64_t hash, Matches matches) const noexcept {
        for (std::size_t i = hash >> shift_; slots_[i].entry; i = next(i)) {
            if (slots_[i].hash == hash && matches(slots_[i].entry)) {
                return &slots_[i].entry;
            }
        }
        return nullptr;
    }
    template <class Matches>
    [[nodiscard]] Entry* find(std::uint64_t hash, Matches matches) noexcept {
        return const_cast<Entry*>(std::as_const(*this).find(hash, matches));
    }

    /// A copy of twice the size if there is no room for one more entry, otherwise an index without
    /// slots. Compares no keys. Throws std::bad_alloc.
    [[nodiscard]] HashIndex enlarged() const {
        if (4 * (used_ + 1) <= slots_.size()) {
            return HashIndex(0);
        }
        HashIndex larger(2 * slots_.size());
        for (Slot const& slot : slots_) {
            if (slot.entry) {
                larger.insert(slot.hash, slot.entry);
            }
        }
        return larger;
    }

    /// Exchanges the two if `larger` has slots. The caller frees the smaller one.
    void exchange(HashIndex& larger) noexcept {
        if (!larger.slots_.empty()) {
            std::swap(*this, larger);
        }
    }

    /// Adds an entry. Precondition: there is room.
    void insert(std::uint64_t hash, Entry entry) noexcept {
        std::size_t i = hash >> shift_;
        while (slots_[i].entry) {
            i = next(i);
        }
        slots_[i] = {hash, entry};
        ++used_;
    }

    HashIndex() : HashIndex(16) {}

private:
    struct Slot {
        std::uint64_t hash = 0;
        Entry entry{};
    };

    explicit HashIndex(std::size_t size)
        : slots_(size),
          shift_(size == 0 ? 0 : 64 - static_cast<std::size_t>(std::bit_width(size - 1))) {}

    [[nodiscard]] std::size_t next(std::size_t i) const noexcept {
        return (i + 1) & (slots_.size() - 1);
    }

    std::vector<Slot> slots_; // their number is a power of two
    std::size_t used_ = 0;
    std::size_t shift_; // reduces a hash to its upper bits, the number of the first slot to try
};

} // namespace courier::hub::serialisation

#endif
