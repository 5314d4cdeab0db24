// SPDX-License-Identifier: Apache-2.0
// What the buffers' model in fuzz/ does not cover: ownership, and what must not compile.
#include "Support.h"

#include <array>
#include <iterator>
#include <span>

using namespace tests;

constexpr std::size_t twoTo63 = std::size_t{1} << 63;
constexpr auto incompatible = "Attempting to take difference between incompatible MessageIterators";
constexpr auto tooLong = "vector too long";

TEST(ByteBuffer, TakesOverWithoutCopying) {
    auto vector = bytes("abc");
    auto const* const address = vector.data();
    EXPECT_EQ(ByteBuffer(std::move(vector)).data(), address);
    int local = 0; // stays with the caller
    EXPECT_THROW(ByteBuffer(ByteBuffer::Block(&local, nullptr), 1), std::invalid_argument);
}

TEST(ByteBuffer, KeepsItsDeleterWithTheBlockAndBeyond) {
    int local = 0;
    auto const captured = std::make_shared<int>();
    auto const adopted = [&](auto deleter) {
        return ByteBuffer(ByteBuffer::Block(&local, std::move(deleter)), sizeof(local));
    };
    for (bool const isEmptied : {false, true}) {
        ByteBuffer buffer = adopted([captured](void*) {}); // fits into a std::function
        if (isEmptied) {
            buffer.resize(0);
        }
        ByteBuffer constructed(std::move(buffer));
        ByteBuffer assigned;
        assigned = std::move(constructed);
        EXPECT_EQ(captured.use_count(), 2); // none has been destroyed
        assigned = ByteBuffer();
        EXPECT_EQ(captured.use_count(), 1);
    }

    // A deleter that inspects its buffer finds it consistent, whatever frees the block.
    std::vector<std::size_t> seen;
    ByteBuffer buffer;
    auto const look = [&](void*) { seen.push_back(buffer.size()); };
    buffer = adopted(look);
    buffer.clear();
    buffer = adopted(look);
    buffer.resize(9);
    buffer = adopted(look);
    buffer = adopted(look);
    buffer = ByteBuffer(3);
    EXPECT_EQ(seen, (std::vector<std::size_t>{0, 9, 4, 3}));
}

TEST(ByteBuffer, FreesItsBlockWithTheLastOfItsParts) {
    for (MakeBuffer const make : kinds) {
        std::vector<std::size_t> order{0, 1, 2, 3};
        do {
            Blocks blocks;
            std::vector<ByteBuffer> parts(4);
            parts[0] = make(blocks, "abcdefgh");
            std::byte* const first = parts[0].data();
            parts[1] = parts[0].splitFront(4);
            std::size_t const before = allocations();
            parts[2] = parts[1].splitFront(1);
            parts[3] = parts[0].splitFront(2);
            EXPECT_EQ(allocations(), before);
            std::string_view const expected[] = {"gh", "bcd", "a", "ef"};
            std::size_t const offsets[] = {6, 1, 0, 4};
            for (std::size_t const released : order) {
                EXPECT_EQ(blocks.freed, 0);
                EXPECT_EQ(text(parts[released]), expected[released]);
                EXPECT_EQ(parts[released].data(), first + offsets[released]);
                parts[released].append(bytes("!")); // to its own memory
                EXPECT_EQ(text(parts[released]), std::string(expected[released]) + "!");
            }
            EXPECT_EQ(blocks.freed, blocks.made);
        } while (std::next_permutation(order.begin(), order.end()));
    }
}

TEST(ByteBuffer, MovesIntoAPartThatIsTheWhole) {
    for (MakeBuffer const make : kinds) {
        Blocks blocks;
        std::size_t const before = unfreed();
        ByteBuffer buffer = make(blocks, "abc");
        EXPECT_ERROR(std::out_of_range, "Requested to remove more bytes than exist",
                     buffer.splitFront(4));
        std::byte const* const first = buffer.data();
        std::size_t const made = allocations();
        EXPECT_TRUE(buffer.splitFront(0).empty());
        EXPECT_EQ(buffer.splitFront(3).data(), first);
        EXPECT_EQ(allocations(), made);
        EXPECT_EQ(unfreed(), before);
        EXPECT_TRUE(buffer.splitFront(0).empty());
    }
}

TEST(ByteBuffer, TakesOverWhatItsOwnBlockKeptAlive) {
    struct Message {
        ByteBuffer next = ByteBuffer(bytes("next"));
    };
    for (bool const isReset : {false, true}) {
        auto message = std::make_shared<Message>();
        ByteBuffer& next = message->next;
        auto const free = [message, isReset](void*) mutable { isReset ? message.reset() : void(); };
        ByteBuffer head(ByteBuffer::Block(message.get(), free), 1);
        message.reset();
        head = std::move(next);
        EXPECT_EQ(text(head), "next");
    }
}

TEST(ByteBuffer, DestroysWhatItAdoptsExactlyOnce) {
    auto const alive = std::make_shared<int>();
    struct Owner : std::string {
        Owner(char const* text, std::shared_ptr<int> count)
            : std::string(text), counted(std::move(count)) {}
        std::shared_ptr<int> counted;
    };
    ByteBuffer const buffer = adopt(Owner("short", alive));
    EXPECT_EQ(alive.use_count(), 2);
    EXPECT_EQ(adopt(Owner("", alive)).size(), 0U);
    EXPECT_EQ(adopt(ByteBufferView(), Owner("", alive)).size(), 0U);
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, adopt(null, Owner("", alive)));
    EXPECT_EQ(alive.use_count(), 2);
    EXPECT_EQ(text(buffer), "short");
}
template <class T> constexpr bool adopted = requires(T owner) { adopt(std::move(owner)); };
static_assert(adopted<std::u8string> && !adopted<std::string_view> && !adopted<ByteBufferView>);
static_assert(!adopted<std::byte*> && !adopted<std::shared_ptr<std::string>>);

TEST(ByteBuffer, IsAContainerForTheStandardLibraryAndItsUsers) {
    ByteBuffer buffer;
    std::ranges::copy(bytes("bytes"), std::back_inserter(buffer));
    EXPECT_EQ(testing::PrintToString(buffer), testing::PrintToString(bytes("bytes")));
    EXPECT_EQ(testing::PrintToString(buffer.first(2)), testing::PrintToString(bytes("by")));
}
#ifdef __GLIBCXX__
static_assert(sizeof(ByteBuffer) <= 64 || sizeof(std::vector<std::byte>) > 24);
#endif

TEST(ByteBuffer, RefusesLengthsBeforeTheyWrap) {
    static std::byte byte{};
    static std::byte* volatile const somewhere = &byte; // of unknown size to the compiler
    auto const lying = [](std::size_t n) {
        return ByteBuffer(ByteBuffer::Block(&byte, [](void*) {}), n);
    };
    std::vector<ByteBuffer> wrapping;
    wrapping.push_back(lying(twoTo63));
    wrapping.push_back(lying(twoTo63 + 1)); // together 1 modulo 2^64
    ByteBuffer buffer(bytes("0123456789"));
    EXPECT_ERROR(std::length_error, tooLong, buffer.append(wrapping));
    EXPECT_EQ(text(buffer), "0123456789");
    EXPECT_ERROR(std::length_error, tooLong, ByteBuffer(twoTo63));
    EXPECT_ERROR(std::length_error, tooLong, ByteBuffer(ByteBufferView(somewhere, twoTo63)));
    EXPECT_ERROR(std::length_error, tooLong, lying(twoTo63).push_back(byte));
    EXPECT_ERROR(std::length_error, tooLong, lying(twoTo63).reserve(0));
}

TEST(ByteBufferDeathTest, EndsTheProcessAtAnAccessBeyondTheEnd) { // as COURIER_HARDENED is defined
    ByteBuffer buffer(3);
    ByteBufferView view = buffer;
    EXPECT_DEATH(buffer[3] = std::byte(), "access to byte 3 of 3");
    EXPECT_DEATH(discard(std::as_const(buffer)[3]), "access to byte 3 of 3");
    EXPECT_DEATH(view[4] = std::byte(), "access to byte 4 of 3");
    EXPECT_DEATH(discard(std::as_const(view)[4]), "access to byte 4 of 3");
    EXPECT_DEATH(discard(*ByteBuffer().begin()), "access to byte 0 of 0");
    EXPECT_EQ(buffer[2], view[2]);
}

TEST(ByteBufferView, OfNoBytesWithALengthIsOfNoUse) {
    ByteBufferView null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null));
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null.makeView(1, 1)));
    EXPECT_ERROR(std::runtime_error, incompatible, null.append(ByteBuffer(1)));
    EXPECT_ERROR(std::runtime_error, incompatible, std::vector(null.begin(), null.end()));
    EXPECT_ERROR(std::runtime_error, incompatible, null.end() - ByteBuffer(1).begin());
    EXPECT_NE(null.begin(), null.end());
    EXPECT_EQ(null, null);
    EXPECT_NE(null, ByteBufferView(std::string_view("abc")));
    EXPECT_NE(ByteBufferView(std::string_view("abc")), null);
    null.clear();
    EXPECT_EQ(null.begin(), null.end());

    ByteBufferView none(std::string_view("abc").substr(0, 0)); // which has an address
    EXPECT_ERROR(std::out_of_range, "ByteBufferView is empty", none.front());
    none = ByteBufferView(std::string_view("abc"));
    none.clear();
    EXPECT_EQ(none.data(), nullptr);
}

template <class T> constexpr bool viewed = std::is_constructible_v<ByteBufferView, T>;
template <class... T> constexpr bool implied = (std::is_convertible_v<T, ByteBufferView> || ...);
static_assert(viewed<ByteBuffer&> && viewed<unsigned char (&)[3]> && viewed<std::u8string>);
static_assert(!viewed<char const (&)[3]> && !viewed<std::vector<int>> && !viewed<std::byte*>);
static_assert(implied<ByteBuffer&> &&
              !implied<std::string&, std::vector<std::byte>, std::span<std::byte>>);

TEST(ByteBufferView, IsMadeFromWhatHasBytes) {
    std::string letters = "abc";
    std::array<std::uint8_t, 3> const numbers{'a', 'b', 'c'};
    ByteBuffer const buffer(bytes("abc"));
    for (ByteBufferView const& view :
         {ByteBufferView(letters), ByteBufferView(std::as_const(letters)),
          ByteBufferView(std::string_view("abc")), ByteBufferView(numbers),
          ByteBufferView(std::as_bytes(std::span(numbers))), ByteBufferView(buffer)}) {
        EXPECT_EQ(view, buffer);
        EXPECT_EQ(std::span<std::byte>(view.makeView(0, 0)).data(), view.data());
    }
    Blocks blocks; // an empty one has an address, a view of it has none
    EXPECT_EQ(ByteBufferView(blocks.adopt("")).data(), nullptr);
}

template <class Iterator> void movesLikeAPointer(Iterator const begin) {
    auto const at = [&](Iterator const& it) { return it - begin; };
    Iterator it = begin;
    EXPECT_EQ(at(it += 3), 3);
    EXPECT_EQ(at(it -= 1), 2);
    EXPECT_EQ(at(++it), 3);
    EXPECT_EQ(at(--it), 2);
    EXPECT_EQ(at(it++), 2);
    EXPECT_EQ(at(it--), 3);
    EXPECT_EQ(at(it), 2);
    EXPECT_EQ(at(it + 1), 3);
    EXPECT_EQ(at(1 + it), 3);
    EXPECT_EQ(at(it - 1), 1);
    EXPECT_EQ(&it[-1], &*begin + 1);
    EXPECT_EQ(it.operator->(), &*begin + 2);
    EXPECT_LT(begin, it);
    EXPECT_GT(it, begin);
    EXPECT_NE(it, begin);
}

TEST(ByteBufferIterator, MovesLikeAPointerAndKnowsItsForm) {
    using Iterator = ByteBufferIterator<std::byte>;
    ByteBuffer vector(bytes("abcdef"));
    movesLikeAPointer(vector.begin());
    movesLikeAPointer(std::as_const(vector).begin());
    movesLikeAPointer(ByteBufferView(vector).begin());
    EXPECT_NE(vector.begin(), ByteBufferView(vector).begin()); // although the address is the same
    EXPECT_EQ(std::as_const(vector).end() - vector.begin(), 6);
    EXPECT_EQ(ByteBufferView().begin() - ByteBuffer().begin(), 0); // both null
    EXPECT_EQ(ByteBufferView().begin(), ByteBuffer().begin());
    EXPECT_EQ(Iterator(), Iterator(static_cast<std::byte*>(nullptr)));
}
