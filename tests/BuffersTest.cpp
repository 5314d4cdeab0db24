// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <algorithm>
#include <array>
#include <limits>
#include <ranges>
#include <span>

namespace {

using namespace tests;

constexpr std::size_t twoTo63 = std::size_t{1} << 63;
constexpr auto incompatible = "Attempting to take difference between incompatible MessageIterators";
constexpr auto tooLong = "vector too long";

template <class Test> void forEveryKind(Test test) {
    for (auto const make : kinds) {
        SCOPED_TRACE(make == full ? "full" : make == spare ? "spare" : "external");
        Blocks blocks;
        test([&](std::string_view content) { return make(blocks, content); }, blocks);
        EXPECT_EQ(blocks.freed, blocks.made);
    }
}

TEST(ByteBuffer, TakesOverWithoutCopying) {
    auto vector = bytes("abc");
    auto const* const address = vector.data();
    EXPECT_EQ(ByteBuffer(std::move(vector)).data(), address);
    Blocks blocks;
    ByteBuffer buffer = blocks.adopt("block");
    void* const block = buffer.data();
    buffer.trimFront(5);
    buffer.clear();
    EXPECT_EQ(blocks.last, block); // freed as it was handed over, though trimmed
    int local = 0;                 // stays with its maker
    EXPECT_THROW(ByteBuffer(ByteBuffer::Block(&local, nullptr), 1), std::invalid_argument);
}

TEST(ByteBuffer, RefusesLengthsBeforeTheyWrap) {
    static std::byte byte{};
    static std::byte* volatile const somewhere = &byte; // no compiler knows how much is there
    auto const viewOf = [](std::size_t n) { return ByteBufferView(somewhere, n); };
    auto const lying = [](std::size_t n) {
        return ByteBuffer(ByteBuffer::Block(&byte, [](void*) {}), n);
    };
    std::vector<ByteBuffer> wrapping;
    wrapping.push_back(lying(twoTo63));
    wrapping.push_back(lying(twoTo63 + 1)); // together 1 modulo 2^64
    std::function<void(ByteBuffer&)> const calls[] = {
        [](auto& b) { b.resize(std::numeric_limits<std::size_t>::max()); },
        [](auto& b) { b.resize(twoTo63 - 1); }, // fits, but not with half as much again
        [&](auto& b) { b.append(viewOf(static_cast<std::size_t>(-5))); },
        [&](auto& b) { b.append(viewOf(twoTo63 - 5)); },
        [&](auto& b) { b.append(viewOf(twoTo63 - 11)); },
        [&](auto& b) { b.append(wrapping); },
        [](auto&) { ByteBuffer buffer(twoTo63); },
        [&](auto&) { ByteBuffer buffer(viewOf(twoTo63)); },
        [&](auto&) { discard(viewOf(twoTo63).operator ByteBuffer()); },
        [&](auto&) { lying(twoTo63).push_back(byte); },
    };
    forEveryKind([&](auto make, Blocks&) {
        ByteBuffer buffer = make("0123456789");
        auto const* const address = buffer.data();
        for (auto const& call : calls) {
            EXPECT_ERROR(std::length_error, tooLong, (call(buffer), 0));
            EXPECT_EQ(buffer.data(), address);
            EXPECT_EQ(text(buffer), "0123456789");
        }
    });
}

TEST(ByteBuffer, RefusesANullViewWithALength) {
    ByteBufferView null(static_cast<std::byte*>(nullptr), 3);
    Blocks blocks;
    ByteBuffer some = blocks.adopt("abc");
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null));
    EXPECT_ERROR(std::runtime_error, incompatible, null.operator ByteBuffer());
    EXPECT_ERROR(std::runtime_error, incompatible, null.append(some));
    EXPECT_ERROR(std::runtime_error, incompatible, some.makeView(0, 0).append(null));
    EXPECT_ERROR(std::runtime_error, incompatible, null.end() - null.begin());
    EXPECT_ERROR(std::runtime_error, incompatible, std::vector(null.begin(), null.end()));
    EXPECT_NE(null.begin(), null.end());
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null.makeView(1, 1)));
    EXPECT_EQ(blocks.freed, 0);
    EXPECT_ERROR(std::runtime_error, incompatible, some.append(null));
    EXPECT_EQ(blocks.freed, 1); // converted by then
    EXPECT_EQ(text(some), "abc");
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
    forEveryKind([](auto make, Blocks& blocks) {
        std::string letters = "abc";
        std::array<std::uint8_t, 3> const numbers{'a', 'b', 'c'};
        ByteBuffer const buffer = make("abc");
        for (ByteBufferView const& view :
             {ByteBufferView(letters), ByteBufferView(std::as_const(letters)),
              ByteBufferView(std::string_view("abc")), ByteBufferView(numbers),
              ByteBufferView(std::as_bytes(std::span(numbers))), ByteBufferView(buffer)}) {
            EXPECT_EQ(view, buffer.makeView(0, 0));
            EXPECT_EQ(buffer, view);
            EXPECT_EQ(buffer, ByteBuffer(view));
            EXPECT_NE(view.makeView(0, 2), buffer);
            EXPECT_NE(view, ByteBufferView(std::string("abC")));
            EXPECT_EQ(std::span<std::byte>(view.makeView(0, 0)).data(), view.data());
        }
        EXPECT_EQ(ByteBufferView(letters).data(), static_cast<void*>(letters.data()));
        EXPECT_EQ(make(""), full(blocks, "")); // one has no address, the other a block's
        EXPECT_EQ(ByteBufferView(make("")).data(), nullptr);
        ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
        EXPECT_TRUE(null == null && null != buffer && buffer != null);
    });
}

TEST(ByteBufferIterator, RefusesToOrderPositionsOfDifferentForms) {
    using Iterator = ByteBufferIterator<std::byte>;
    Blocks blocks;
    ByteBuffer vector(bytes("abcdef"));
    ByteBuffer block = blocks.adopt("abcdef");
    for (ByteBuffer* const buffer : {&vector, &block}) {
        Iterator it = buffer->begin();
        EXPECT_EQ((it += 3) += -3, buffer->begin());
        EXPECT_EQ(*it++, std::byte{'a'});
        EXPECT_LT(it, 1 + it);
        EXPECT_EQ(std::as_const(*buffer).end() - it, 5);
    }
    EXPECT_NE(vector.begin(), block.begin());
    EXPECT_NE(vector.begin(), ByteBufferView(vector).begin()); // though at one address
    EXPECT_ERROR(std::runtime_error, incompatible, block.begin() < vector.end());
    EXPECT_EQ(Iterator(), Iterator(static_cast<std::byte*>(nullptr)));
}

} // namespace
