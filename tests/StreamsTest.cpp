// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <limits>
#include <ranges>
#include <stdexcept>

namespace {

using namespace tests;

constexpr int endOfFile = std::char_traits<char>::eof();

TEST(ByteStream, IsAtItsEndWithoutASource) {
    static_assert(std::ranges::input_range<ByteStream>);
    ByteStream none(std::make_unique<ByteBufferByteStreamImpl>(ByteBuffer(1)));
    ByteStream& alias = none;
    none = std::move(alias);
    EXPECT_TRUE(none);
    ByteStream const taken(std::move(none));
    EXPECT_TRUE(taken && !none);
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

// As a class derived from it may call them, though bytes are there.
struct Opened : NonOwningByteBufferViewIStreambuf {
    using NonOwningByteBufferViewIStreambuf::NonOwningByteBufferViewIStreambuf;
    using NonOwningByteBufferViewIStreambuf::uflow, ReadOnlyStreambuf::underflow;
};

TEST(IStreambuf, OwnsOnlyWhatItWasGiven) {
    Blocks blocks;
    ByteBuffer const borrowed = blocks.adopt("borrowed");
    {
        ByteBufferIStreambuf owner(std::make_unique<ByteBuffer>(blocks.adopt("ab")));
        owner.sbumpc();
        ByteBufferIStreambuf second(std::move(owner));
        EXPECT_EQ(owner.sgetc(), endOfFile);
        EXPECT_EQ(second.sbumpc(), 'b');
        second = ByteBufferIStreambuf(borrowed.makeView(0, 0));
        EXPECT_EQ(blocks.freed, 1);
    }
    NonOwningByteBufferViewIStreambuf first(borrowed.makeView(0, 0));
    first.sbumpc();
    NonOwningByteBufferViewIStreambuf second(std::move(first));
    EXPECT_EQ(first.sbumpc(), 'o'); // stays usable
    EXPECT_EQ(second.sbumpc(), 'o');
    EXPECT_EQ(blocks.freed, 1);
    Opened opened(borrowed.makeView(6, 0));
    for (int const expected : {+'e', +'d', endOfFile}) {
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

} // namespace
