// SPDX-License-Identifier: Apache-2.0
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

// Bytes that count how often they are destroyed, and cannot be copied.
struct Owner : std::string {
    Owner(std::string text, int& count) : std::string(std::move(text)), destroyed(count) {}
    Owner(Owner&& other) noexcept
        : std::string(std::move(other)), destroyed(other.destroyed),
          isOwner(std::exchange(other.isOwner, false)) {}
    Owner& operator=(Owner&&) = delete;
    ~Owner() { destroyed += isOwner; }
    int& destroyed;
    bool isOwner = true;
};

TEST(ByteBuffer, DestroysWhatItAdoptsWithTheBlock) {
    for (std::string const content :
         {"", "short", "long enough to be allocated by a std::string"}) {
        int destroyed = 0;
        ByteBuffer buffers[] = {adopt(Owner(content, destroyed)), ByteBuffer()};
        auto shared = std::make_shared<Owner>(content, destroyed);
        ByteBufferView const view(*shared);
        buffers[1] = adopt(view, std::move(shared));
        EXPECT_EQ(std::to_address(std::as_const(buffers[1]).begin()), view.data());
        for (ByteBuffer& buffer : buffers) {
            int const before = destroyed;
            EXPECT_EQ(text(buffer), content);
            EXPECT_EQ(buffer.capacity(), 0U);
            buffer.resize(content.size());
            EXPECT_EQ(destroyed, before + 1);
            EXPECT_EQ(text(buffer), content);
        }
    }
    int destroyed = 0;
    EXPECT_TRUE(adopt(ByteBufferView(), Owner("", destroyed)).empty());
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, adopt(null, Owner("", destroyed)));
    EXPECT_EQ(destroyed, 2);
    EXPECT_TRUE(adopt(std::vector<char>()).empty());
}
template <class T> constexpr bool adopted = requires(T owner) { adopt(std::move(owner)); };
static_assert(adopted<std::u8string> && !adopted<std::string_view> && !adopted<ByteBufferView>);
static_assert(!adopted<std::byte*> && !adopted<std::shared_ptr<std::string>>);

TEST(ByteBuffer, MakesRoomForAsMuchAsItSays) {
    constexpr std::pair<void (*)(ByteBuffer&), std::size_t> growths[] = {
        {[](auto& buffer) { buffer.append(ByteBufferView(std::string_view("abcd"))); }, 21},
        {[](auto& buffer) { buffer.append(buffer); }, 30},
        {[](auto& buffer) { buffer.resize(14); }, 21},
        {[](auto& buffer) { buffer.resize(30); }, 45},
        {[](auto& buffer) { buffer.push_back(std::byte{}); }, 20},
        {[](auto& buffer) { buffer.reserve(17); }, 17}};
    for (auto const& [grow, capacity] : growths) {
        for (auto const make : kinds) {
            Blocks blocks;
            ByteBuffer buffer = make(blocks, "0123456789");
            std::size_t const had = buffer.capacity();
            auto const* const address = buffer.data();
            EXPECT_EQ(had == 0, blocks.made == 1);
            grow(buffer);
            EXPECT_EQ(buffer.capacity(), std::max(had, capacity));
            EXPECT_EQ(had == 1000, had >= capacity && buffer.data() == address);
            EXPECT_EQ(text(buffer).substr(0, 10), "0123456789");
            EXPECT_EQ(blocks.freed, blocks.made);
            buffer.clear();
            EXPECT_EQ(buffer.capacity(), std::max(had, capacity));
        }
    }
    std::vector<std::byte> reserved;
    reserved.reserve(8);
    ByteBuffer buffer(std::move(reserved));
    std::ranges::copy(bytes("bytes"), std::back_inserter(buffer));
    EXPECT_EQ(buffer.capacity(), 8U);
    EXPECT_EQ(testing::PrintToString(buffer), testing::PrintToString(bytes("bytes")));
    EXPECT_EQ(testing::PrintToString(buffer.first(2)), testing::PrintToString(bytes("by")));
}
#ifdef __GLIBCXX__
static_assert(sizeof(ByteBuffer) <= 64 || sizeof(std::vector<std::byte>) > 24);
#endif

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
    EXPECT_ERROR(std::length_error, tooLong, lying(twoTo63).reserve(0));
}

TEST(ByteBuffer, RefusesANullViewWithALength) {
    ByteBufferView null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null));
    EXPECT_ERROR(std::runtime_error, incompatible, ByteBuffer(null.makeView(1, 1)));
    EXPECT_ERROR(std::runtime_error, incompatible, null.append(ByteBuffer(1)));
    EXPECT_ERROR(std::runtime_error, incompatible, std::vector(null.begin(), null.end()));
    EXPECT_NE(null.begin(), null.end());
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
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_ERROR(std::runtime_error, incompatible, null.end() - vector.begin());
    EXPECT_EQ(null.begin() - ByteBuffer().begin(), 0); // both null
    EXPECT_EQ(Iterator(), Iterator(static_cast<std::byte*>(nullptr)));
}
