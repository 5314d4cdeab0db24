// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <limits>
#include <ranges>
#include <stdexcept>

namespace {

using namespace tests;

constexpr int endOfFile = std::char_traits<char>::eof();

ByteStream streamOver(std::string_view content) {
    return ByteStream(std::make_unique<ByteBufferByteStreamImpl>(ByteBuffer(bytes(content))));
}

TEST(ByteStream, IsAtItsEndWithoutASource) {
    static_assert(std::ranges::input_range<ByteStream>);
    ByteStream none;
    EXPECT_FALSE(none);
    EXPECT_EQ(none.begin(), none.end());
    EXPECT_ERROR(std::out_of_range, "ByteStream has no source", none.getByte());
}

// Five bytes, of which the fourth cannot be read.
struct StumblingSource final : ByteStreamImpl {
    explicit StumblingSource(int& count) : destroyed(count) {}
    ~StumblingSource() override { ++destroyed; }
    ByteStreamIterator begin() override { return ByteStreamIterator(*this); }
    explicit operator bool() const override { return position < 5; }
    std::byte getByte() override {
        return ++position == 4 ? throw std::runtime_error("stumbled") : std::byte('0' + position);
    }
    int position = 0;
    int& destroyed;
};

TEST(ByteStream, IsUnchangedWhenItsSourceThrows) {
    int destroyed = 0;
    ByteStream stream(std::make_unique<StumblingSource>(destroyed));
    ByteStreamCharIterator it(stream.begin()); // has '1', and '2' ahead
    ++it;
    EXPECT_ERROR(std::runtime_error, "stumbled", it++);
    EXPECT_EQ(*it, '2');
    EXPECT_EQ(*++it, '3');
    EXPECT_EQ(*++it, '5');
    ByteStream& alias = stream;
    stream = std::move(alias);
    ByteStream moved(std::move(stream));
    EXPECT_FALSE(stream);
    EXPECT_EQ(destroyed, 0);
    moved = streamOver("x");
    EXPECT_EQ(destroyed, 1);
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

// Addresses by the gibibyte over one small piece of memory, mapped again and again. The piece does
// not divide 2^32, so that a position cut to 32 bits finds another byte. Null where that can't be.
constexpr std::size_t tile = std::size_t{3} << 20;
constexpr std::size_t twoTo32 = std::size_t{1} << 32;
constexpr std::size_t huge = (twoTo32 / tile + 9) * tile;
std::byte* mapHuge() {
    int const file = memfd_create("tile", 0);
    void* const start =
        mmap(nullptr, huge, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    bool made = file >= 0 && start != MAP_FAILED && ftruncate(file, tile) == 0;
    for (std::size_t at = 0; made && at < huge; at += tile) {
        made = mmap(static_cast<char*>(start) + at, tile, PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_FIXED, file, 0) != MAP_FAILED;
    }
    close(file);
    return made ? static_cast<std::byte*>(start) : nullptr;
}

TEST(Buffers, CountPastFourGibibytes) {
    std::byte* const start = mapHuge();
    std::byte* const target = mapHuge();
    if (start == nullptr || target == nullptr) {
        GTEST_SKIP() << "no addresses for the test";
    }
    auto const byteAt = [](std::size_t at) { return static_cast<int>(at % tile % 251); };
    for (std::size_t at = 0; at < tile; ++at) {
        start[at] = std::byte(byteAt(at));
    }
    int unmapped = 0;
    auto const unmap = [&](void* block) {
        unmapped += (block == start || block == target) && munmap(block, huge) == 0;
    };
    {
        ByteBuffer const to(ByteBuffer::Block(target, unmap), huge);
        auto from = std::make_unique<ByteBuffer>(ByteBuffer::Block(start, unmap), huge);
        EXPECT_EQ(from->end() - from->begin(), static_cast<std::ptrdiff_t>(huge));
        EXPECT_EQ(&from->at(huge - 1), start + (huge - 1));
        EXPECT_THROW(discard(from->at(huge)), std::out_of_range);
        ByteBufferView view = from->makeView(twoTo32 - 1, 0);
        EXPECT_EQ(view.size(), huge - (twoTo32 - 1));
        EXPECT_EQ(view.begin() + 1 - ByteBufferView(start, huge).begin(), twoTo32);
        view = from->makeView(1, twoTo32 + 1);
        view.trimFront(twoTo32);
        EXPECT_TRUE(view.size() == 1 && view.data() == start + twoTo32 + 1);

        NonOwningByteBufferViewIStreambuf buffer(from->makeView(0, 0));
        constexpr auto most = static_cast<std::streamsize>(twoTo32 + 5);
        EXPECT_EQ(buffer.sgetn(reinterpret_cast<char*>(target), most), most);
        EXPECT_EQ(static_cast<int>(to[twoTo32 + 4]), byteAt(twoTo32 + 4));
        EXPECT_EQ(buffer.sbumpc(), byteAt(twoTo32 + 5));
        EXPECT_EQ(buffer.in_avail(), static_cast<std::streamsize>(huge) - most - 1);

        from->trimFront(twoTo32 - 1);
        ByteBufferIStreambuf rest(std::move(from));
        EXPECT_EQ(rest.in_avail(), static_cast<std::streamsize>(huge - (twoTo32 - 1)));
        std::istream in(&rest);
        EXPECT_EQ(in.ignore(7).get(), byteAt(twoTo32 + 6));
    }
    EXPECT_EQ(unmapped, 2);
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
