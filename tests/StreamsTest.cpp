// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

// What the model in fuzz/ does not cover.
using namespace tests;

TEST(IStreambuf, RefusesWhatIsNotThere) {
    EXPECT_THROW(ByteBufferIStreambuf(std::unique_ptr<ByteBuffer>()), std::invalid_argument);
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_THROW(ByteBufferIStreambuf{null}, std::invalid_argument);
    EXPECT_THROW(NonOwningByteBufferViewIStreambuf{null}, std::invalid_argument);
}

TEST(IStreambuf, ReadsForAClassDerivedFromIt) { // which may call these when bytes are available
    struct Opened : NonOwningByteBufferViewIStreambuf {
        using NonOwningByteBufferViewIStreambuf::NonOwningByteBufferViewIStreambuf;
        using NonOwningByteBufferViewIStreambuf::uflow, ReadOnlyStreambuf::underflow;
    } opened(ByteBufferView(std::string_view("\xFF\xFE")));
    for (int const expected : {0xFF, 0xFE, std::char_traits<char>::eof()}) {
        EXPECT_EQ(opened.underflow(), expected);
        EXPECT_EQ(opened.uflow(), expected);
    }
}

template <class Streambuf> constexpr bool readsTemporary =
    std::is_constructible_v<Streambuf, ByteBuffer> ||
    std::is_constructible_v<Streambuf, ByteBuffer const>;
static_assert(!readsTemporary<ByteBufferIStreambuf>);
static_assert(!readsTemporary<NonOwningByteBufferViewIStreambuf>);
static_assert(std::ranges::input_range<ByteStream>);
