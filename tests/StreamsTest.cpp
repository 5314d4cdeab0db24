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

TEST(ByteStream, LeavesAMovedFromSourceAtItsEnd) {
    Blocks blocks;
    ByteBufferByteStreamImpl source(blocks.adopt("abc")), other(blocks.adopt("other"));
    source.getByte();
    EXPECT_EQ(passOn(source, other, [](auto& from) { return from ? "more" : "end"; }), "end");
    EXPECT_EQ(blocks.freed, 1);
    EXPECT_EQ(other.getByte(), std::byte{'b'});
    EXPECT_THROW(source.getByte(), std::out_of_range);
}

TEST(ByteStream, IteratorsAreEqualOverOneSource) {
    ByteBufferByteStreamImpl source(ByteBuffer(bytes("abcdef"))), same(ByteBuffer(bytes("abcdef")));
    ByteStreamIterator const a = source, b = source, other = same;
    EXPECT_EQ(a, b);
    EXPECT_NE(a, other);
    ByteStreamCharIterator const charA = a, charB = b, charOther = other;
    EXPECT_EQ(charA, charB);
    EXPECT_NE(charA, charOther);
}

TEST(IStreambuf, RefusesWhatIsNotThere) {
    EXPECT_THROW(ByteBufferIStreambuf(std::unique_ptr<ByteBuffer>()), std::invalid_argument);
    ByteBufferView const null(static_cast<std::byte*>(nullptr), 3);
    EXPECT_THROW(ByteBufferIStreambuf{null}, std::invalid_argument);
    EXPECT_THROW(NonOwningByteBufferViewIStreambuf{null}, std::invalid_argument);
    char target = 'x';
    NonOwningByteBufferViewIStreambuf some(ByteBufferView(std::string_view("some")));
    EXPECT_EQ(some.sgetn(&target, 0), 0);
    EXPECT_EQ(some.sgetn(&target, -1), 0);
    EXPECT_EQ(some.sgetc(), 's');
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

template <class Streambuf> void passesOnWhatIsUnread(std::string const& movedFrom) {
    static_assert(!std::is_constructible_v<Streambuf, ByteBuffer>);
    static_assert(!std::is_constructible_v<Streambuf, ByteBuffer const>);
    ByteBuffer const buffer(bytes("an example"));
    Streambuf source(buffer), other(buffer);
    source.skip(3);
    EXPECT_EQ(passOn(source, other, [](auto& from) { return text(from.unread()); }), movedFrom);
    EXPECT_EQ(other.unread().data(), buffer.data() + 3);
    other.skip(7);
    EXPECT_EQ(other.sungetc(), 'e'); // what was skipped can be put back
}
TEST(IStreambuf, PassesOnWhatIsUnread) {
    passesOnWhatIsUnread<ByteBufferIStreambuf>("");
    passesOnWhatIsUnread<NonOwningByteBufferViewIStreambuf>("example");
}

TEST(OStreambuf, GrowsToTwiceItsSize) {
    struct Opened : ByteBufferOStreambuf {
        using ByteBufferOStreambuf::overflow;
        bool isFull() const { return pptr() == epptr(); }
    } sink, other;
    EXPECT_NE(sink.overflow(std::char_traits<char>::eof()), std::char_traits<char>::eof());
    int grown = 0;
    for (int i = 0; i < 100'000; ++i) {
        grown += sink.isFull() ? 1 : 0;
        ASSERT_EQ(sink.sputc('\xFF'), 0xFF);
    }
    EXPECT_LE(grown, 9); // starting at 512
    EXPECT_EQ(passOn(sink, other, [](auto& to) { return std::to_string(to.size()); }), "0");
    EXPECT_EQ(other.size(), 100'000);
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
