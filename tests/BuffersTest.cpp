// SPDX-License-Identifier: Apache-2.0
// What the model in fuzz/ does not cover: what must not compile, or allocate.
#include "Support.h"

#include <array>
#include <iterator>
#include <span>

using namespace tests;

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
