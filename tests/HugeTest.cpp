// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <sys/mman.h>
#include <unistd.h>

namespace {

using namespace tests;

// Gibibytes of addresses for one small piece of memory, which is mapped repeatedly. Its size does
// not divide 2^32, so that a position cut to 32 bits finds another byte. Null if that is
// impossible.
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
    auto const unmap = [](void* block) { munmap(block, huge); };
    ByteBuffer const to(ByteBuffer::Block(target, unmap), huge);
    auto from = std::make_unique<ByteBuffer>(ByteBuffer::Block(start, unmap), huge);
    EXPECT_EQ(from->end() - from->begin(), static_cast<std::ptrdiff_t>(huge));
    EXPECT_EQ(&from->at(huge - 1), start + (huge - 1));

    ByteBufferIStreambuf buffer(std::move(from));
    constexpr std::size_t many = twoTo32 / 2 + 5;
    constexpr auto count = static_cast<std::streamsize>(many);
    buffer.skip(many);
    EXPECT_EQ(buffer.sgetc(), byteAt(many));
    EXPECT_EQ(buffer.sgetn(reinterpret_cast<char*>(target), count), count);
    EXPECT_EQ(static_cast<int>(to[many - 1]), byteAt(2 * many - 1));
    EXPECT_EQ(buffer.in_avail(), static_cast<std::streamsize>(huge - 2 * many));
    ByteBuffer rest = buffer.take(huge - 2 * many);
    rest.trimFront(7);
    EXPECT_EQ(static_cast<int>(rest[0]), byteAt(2 * many + 7));
}

TEST(OStreambuf, CountsPastTwoGibibytes) {
    constexpr std::size_t more = twoTo32 / 2 + 5;
    ByteBufferOStreambuf sink;
    sink.commit(sink.prepare(more).size() - 1); // pages that nobody touches
    std::size_t const before = sink.size();
    EXPECT_GE(before + 1, more);
    EXPECT_EQ(sink.sputc('x'), 'x');
    ByteBuffer const written = sink.release();
    EXPECT_EQ(written.size(), before + 1);
    EXPECT_EQ(written[before], std::byte{'x'});
}

} // namespace
