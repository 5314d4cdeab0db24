// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

using namespace tests;

TEST(ByteStream, IsAtItsEndWithoutASource) {
    static_assert(std::ranges::input_range<ByteStream>);
    ByteStream none(std::make_unique<ByteBufferByteStreamImpl>(ByteBuffer(1)));
    ByteStream other;
    EXPECT_EQ(passOn(none, other, [](auto& stream) { return stream ? "more" : "end"; }), "end");
    EXPECT_EQ(none.begin(), none.end());
    EXPECT_ERROR(std::out_of_range, "ByteStream has no source", none.getByte());
}

TEST(IStreambuf, RefusesWhatIsNotThere) {
    EXPECT_THROW(ByteBufferIStreambuf(std::unique_ptr<ByteBuffer>()), std::invalid_argument);
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_THROW(ByteBufferIStreambuf{null}, std::invalid_argument);
    EXPECT_THROW(NonOwningByteBufferViewIStreambuf{null}, std::invalid_argument);
    char target = 'x';
    NonOwningByteBufferViewIStreambuf some(ByteBufferView(std::string_view("some")));
    EXPECT_EQ(some.sgetn(&target, 0) + some.sgetn(&target, -1), 0);
    EXPECT_EQ(some.sgetc(), 's');
}

TEST(IStreambuf, ReadsForAClassDerivedFromIt) { // which may call these though bytes are there
    struct Opened : NonOwningByteBufferViewIStreambuf {
        using NonOwningByteBufferViewIStreambuf::NonOwningByteBufferViewIStreambuf;
        using NonOwningByteBufferViewIStreambuf::uflow, ReadOnlyStreambuf::underflow;
    } opened(ByteBufferView(std::string_view("ed")));
    for (int const expected : {+'e', +'d', std::char_traits<char>::eof()}) {
        EXPECT_EQ(opened.underflow(), expected);
        EXPECT_EQ(opened.uflow(), expected);
    }
}

TEST(OStreambuf, HandsOutTheBlockThatItWroteTo) {
    ByteBufferOStreambuf sink(5);
    std::size_t const before = allocations();
    sink.sputn("block", 5);
    ByteBuffer const released = sink.release();
    EXPECT_EQ(allocations(), before);
    EXPECT_EQ(text(released), "block");
}

TEST(OStreambuf, KeepsWhatWasWrittenWhenMemoryRunsOut) {
    constexpr std::size_t longest = std::numeric_limits<std::ptrdiff_t>::max();
    constexpr std::streamsize most = std::numeric_limits<std::streamsize>::max();
    EXPECT_ERROR(std::length_error, "vector too long", ByteBufferOStreambuf(longest + 1));
    EXPECT_THROW(ByteBufferOStreambuf{longest}, std::bad_alloc);
    ByteBufferOStreambuf sink;
    sink.sputn("kept", 4);
    EXPECT_ERROR(std::length_error, "vector too long", sink.sputn("", most));
    EXPECT_THROW(sink.sputn("", most - 4), std::bad_alloc);
    EXPECT_EQ(sink.sputn("", -1), 0);
    EXPECT_EQ(sink.sputc('!'), '!');
    EXPECT_EQ(text(sink.release()), "kept!");
}
