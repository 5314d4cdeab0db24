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

/// Spreads what differs anywhere in x over the upper bits of the result, and back over the lower
/// ones, for more to come.
constexpr std::uint64_t stir(std::uint64_t x) noexcept {
    x *= 0x9E3779B97F4A7C15;
    return x ^ (x >> 32);
}

inline std::uint64_t hashOf(std::uint64_t x) noexcept { return stir(x); }

inline std::uint64_t hashOf(std::vector<std::uint64_t> const& list) noexcept {
    std::uint64_t hash = list.size();
    for (std::uint64_t const x : list) {
        hash = stir(hash ^ x);
    }
    return hash;
}

// A copy of fixed length is a single load.
template <class Word> std::uint64_t load(char const* from) noexcept {
    Word word;
    std::memcpy(&word, from, sizeof(word));
    return word;
}

inline std::uint64_t hashOf(std::string_view text) noexcept {
    std::uint64_t hash = text.size();
    for (; text.size() > 8; text.remove_prefix(8)) {
        hash = stir(hash ^ load<std::uint64_t>(text.data()));
    }
    if (text.size() >= 4) { // the two loads overlap where it is shorter than 8
        hash ^= load<std::uint32_t>(text.data()) << 32 |
                load<std::uint32_t>(text.data() + text.size() - 4);
    } else {
        for (char const c : text) {
            hash = hash << 8 ^ static_cast<unsigned char>(c);
        }
    }
    return stir(hash);
}

/// A flat hash table of small entries, which are only ever added. It knows hashes, not keys:
/// whoever searches says what is equal. Open addressing, at most a quarter full, so that a search
/// mostly ends where it began. Where all hashes collide a search is linear: keys come from the
/// modules of a program, not from the bytes that these read.
template <class Entry> class HashIndex {
public:
    /// The entry with this hash that `matches`, or null. Constant on average; allocates nothing.
    template <class Matches>
    [[nodiscard]] Entry const* find(std::uint64_t hash, Matches matches) const noexcept {
        for (std::size_t i = hash >> shift_; slots_[i].taken; i = next(i)) {
            if (matches(slots_[i].entry)) {
                return &slots_[i].entry;
            }
        }
        return nullptr;
    }
    template <class Matches>
    [[nodiscard]] Entry* find(std::uint64_t hash, Matches matches) noexcept {
        return const_cast<Entry*>(std::as_const(*this).find(hash, matches));
    }

    /// Makes room for one more entry; `hashOfEntry` gives the hash under which one was inserted.
    /// Throws std::bad_alloc; nothing has then changed.
    template <class HashOfEntry> void reserveOne(HashOfEntry hashOfEntry) {
        if (4 * (used_ + 1) <= slots_.size()) {
            return;
        }
        HashIndex larger(2 * slots_.size());
        for (Slot const& slot : slots_) {
            if (slot.taken) {
                larger.insert(hashOfEntry(slot.entry), slot.entry);
            }
        }
        *this = std::move(larger);
    }

    /// Adds an entry, for which there is room.
    void insert(std::uint64_t hash, Entry entry) noexcept {
        std::size_t i = hash >> shift_;
        while (slots_[i].taken) {
            i = next(i);
        }
        slots_[i] = {entry, true};
        ++used_;
    }

    HashIndex() : HashIndex(16) {}

private:
    struct Slot {
        Entry entry{};
        bool taken = false;
    };

    explicit HashIndex(std::size_t size)
        : slots_(size), shift_(64 - static_cast<std::size_t>(std::bit_width(size - 1))) {}

    [[nodiscard]] std::size_t next(std::size_t i) const noexcept {
        return (i + 1) & (slots_.size() - 1);
    }

    std::vector<Slot> slots_; // a power of two of them
    std::size_t used_ = 0;
    std::size_t shift_; // leaves as many of a hash's upper bits as number the slots
};

} // namespace courier::hub::serialisation

#endif
