// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <array>
#include <span>

using namespace tests;

constexpr std::size_t twoTo63 = std::size_t{1} << 63;
constexpr auto incompatible = "Attempting to take difference between incompatible MessageIterators";
constexpr auto tooLong = "vector too long";

TEST(ByteBuffer, TakesOverWithoutCopying) {
    auto vector = bytes("abc");
    auto const* const address = vector.data();
    EXPECT_EQ(ByteBuffer(std::move(vector)).data(), address);
    int local = 0; // stays with its maker
    EXPECT_THROW(ByteBuffer(ByteBuffer::Block(&local, nullptr), 1), std::invalid_argument);
}

TEST(ByteBuffer, KeepsItsDeleterWithTheBlockAndBeyond) {
    int local = 0;
    auto const captured = std::make_shared<int>();
    auto const adopt = [&](auto deleter) {
        return ByteBuffer(ByteBuffer::Block(&local, std::move(deleter)), sizeof(local));
    };
    for (bool const isEmptied : {false, true}) {
        ByteBuffer buffer = adopt([captured](void*) {}); // small, so that a std::function holds it
        if (isEmptied) {
            buffer.resize(0);
        }
        ByteBuffer constructed(std::move(buffer));
        ByteBuffer assigned;
        assigned = std::move(constructed);
        EXPECT_EQ(captured.use_count(), 2); // all of them are still there
        assigned = ByteBuffer();
        EXPECT_EQ(captured.use_count(), 1);
    }

    // One that looks at its buffer finds it whole, whatever frees the block.
    std::vector<std::size_t> seen;
    ByteBuffer buffer;
    auto const look = [&](void*) { seen.push_back(buffer.size()); };
    buffer = adopt(look);
    buffer.clear();
    buffer = adopt(look);
    buffer = adopt(look);
    buffer = ByteBuffer(3);
    EXPECT_EQ(seen, (std::vector<std::size_t>{0, sizeof(local), 3}));
}

TEST(ByteBuffer, TakesOverWhatItsOwnBlockKeptAlive) {
    struct Message {
        ByteBuffer next = ByteBuffer(bytes("next"));
    };
    for (bool const isReset : {false, true}) {
        auto message = std::make_shared<Message>();
        ByteBuffer& next = message->next;
        ByteBuffer head(ByteBuffer::Block(message.get(),
                                          [message, isReset](void*) mutable {
                                              isReset ? message.reset() : void();
                                          }),
                        1);
        message.reset();
        head = std::move(next);
        EXPECT_EQ(text(head), "next");
    }
}

TEST(ByteBuffer, RefusesLengthsBeforeTheyWrap) {
    static std::byte byte{};
    static std::byte* volatile const somewhere = &byte; // no compiler knows how much is there
    auto const lying = [](std::size_t n) {
        return ByteBuffer(ByteBuffer::Block(&byte, [](void*) {}), n);
    };
    std::vector<ByteBuffer> wrapping;
    wrapping.push_back(lying(twoTo63));
    wrapping.push_back(lying(twoTo63 + 1)); // together 1 modulo 2^64
    for (auto const make : kinds) {
        Blocks blocks;
        ByteBuffer buffer = make(blocks, "0123456789");
        auto const* const address = buffer.data();
        EXPECT_ERROR(std::length_error, tooLong, buffer.append(wrapping));
        EXPECT_TRUE(buffer.data() == address && text(buffer) == "0123456789");
    }
    EXPECT_ERROR(std::length_error, tooLong, ByteBuffer(twoTo63));
    EXPECT_ERROR(std::length_error, tooLong, ByteBuffer(ByteBufferView(somewhere, twoTo63)));
    EXPECT_ERROR(std::length_error, tooLong, lying(twoTo63).push_back(byte));
}

TEST(ByteBuffer, RefusesANullViewWithALength) {
    ByteBufferView null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null));
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null.makeView(1, 1)));
    EXPECT_ERROR(std::runtime_error, incompatible, null.append(ByteBuffer(1)));
    EXPECT_ERROR(std::runtime_error, incompatible, std::vector(null.begin(), null.end()));
    EXPECT_NE(null.begin(), null.end());
    ByteBuffer const vector(3);
    EXPECT_ERROR(std::runtime_error, incompatible, std::as_const(null).end() - vector.begin());
    EXPECT_EQ(std::as_const(null).begin(), ByteBufferIterator<std::byte const>());
    EXPECT_ERROR(std::runtime_error, incompatible, adopt(null, 1));
}

TEST(Adopt, KeepsAnyOwnerUntilTheBlockIsReleased) {
    auto const shared = std::make_shared<std::string>("shared");
    ByteBuffer buffer = adopt(ByteBufferView(*shared), shared);
    EXPECT_EQ(buffer.data(), static_cast<void*>(shared->data()));
    EXPECT_EQ(shared.use_count(), 2);
    ByteBuffer moved(std::move(buffer));
    moved.trimFront(2);
    EXPECT_EQ(shared.use_count(), 2);
    moved.push_back(std::byte{'!'});
    EXPECT_EQ(shared.use_count(), 1); // though the buffer has kept its deleter
    EXPECT_EQ(text(moved), "ared!");

    EXPECT_EQ(text(adopt(std::string("short"))), "short"); // moves with its owner
    EXPECT_EQ(adopt(std::vector<char>()), ByteBuffer());
    EXPECT_EQ(text(adopt(ByteBufferView(*shared), std::make_unique<int>(1))), "shared");
    std::size_t const before = allocations();
    ByteBuffer const one = adopt(std::vector<std::byte>());
    EXPECT_EQ(allocations(), before + 1);
}

TEST(ByteBuffer, HasTheNamesOfContainers) {
    ByteBuffer buffer;
    std::ranges::copy(bytes("ab"), std::back_inserter(buffer));
    EXPECT_EQ(testing::PrintToString(buffer), "{ 1-byte object <61>, 1-byte object <62> }");
    EXPECT_EQ(testing::PrintToString(buffer.first(1)), testing::PrintToString(bytes("a")));
    static_assert(std::ranges::contiguous_range<ByteBuffer>);
    static_assert(std::same_as<std::ranges::range_value_t<ByteBufferView>, std::byte>);
}

template <class T> constexpr bool viewed = std::is_constructible_v<ByteBufferView, T>;
template <class... T> constexpr bool implied = (std::is_convertible_v<T, ByteBufferView> || ...);
static_assert(viewed<ByteBuffer&> && viewed<unsigned char (&)[3]> && viewed<std::u8string>);
static_assert(!viewed<char const (&)[3]> && !viewed<std::vector<int>> && !viewed<std::byte*>);
static_assert(!implied<ByteBuffer&, std::string&, std::vector<std::byte>, std::span<std::byte>>);
// A stream buffer over bytes that are gone by the time it reads.
static_assert(!std::is_constructible_v<ByteBufferIStreambuf, ByteBuffer>);
static_assert(!std::is_constructible_v<NonOwningByteBufferViewIStreambuf, ByteBuffer>);

TEST(ByteBufferView, IsMadeFromWhatHasBytesAndComparesThem) {
    Blocks blocks;
    std::string letters = "abc";
    std::array<std::uint8_t, 3> const numbers{'a', 'b', 'c'};
    ByteBuffer const buffer = blocks.adopt("abc");
    for (ByteBufferView const& view :
         {ByteBufferView(letters), ByteBufferView(std::as_const(letters)),
          ByteBufferView(std::string_view("abc")), ByteBufferView(numbers),
          ByteBufferView(std::as_bytes(std::span(numbers))), ByteBufferView(buffer)}) {
        EXPECT_TRUE(view == buffer.makeView(0, 0) && buffer == view && buffer == ByteBuffer(view));
        EXPECT_TRUE(view.makeView(0, 2) != buffer && view != ByteBufferView(std::string("abC")));
        EXPECT_EQ(std::span<std::byte>(view.makeView(0, 0)).data(), view.data());
    }
    EXPECT_EQ(ByteBufferView(letters).data(), static_cast<void*>(letters.data()));
    EXPECT_EQ(blocks.adopt(""), ByteBuffer()); // one has an address, the other none
    EXPECT_EQ(ByteBufferView(blocks.adopt("")).data(), nullptr);
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_TRUE(null == null && null != buffer && buffer != null);
}

TEST(ByteBufferIterator, RefusesToOrderPositionsOfDifferentForms) {
    using Iterator = ByteBufferIterator<std::byte>;
    Blocks blocks;
    ByteBuffer vector(bytes("abcdef"));
    ByteBuffer block = blocks.adopt("abcdef");
    Iterator it = block.begin();
    EXPECT_EQ((it += 3) += -3, block.begin());
    EXPECT_EQ(*it++, std::byte{'a'});
    EXPECT_LT(it, 1 + it);
    EXPECT_EQ(std::as_const(block).end() - it, 5);
    EXPECT_NE(vector.begin(), block.begin());
    EXPECT_NE(vector.begin(), ByteBufferView(vector).begin()); // though at one address
    EXPECT_ERROR(std::runtime_error, incompatible, block.begin() < vector.end());
    EXPECT_EQ(Iterator(), Iterator(static_cast<std::byte*>(nullptr)));
}
