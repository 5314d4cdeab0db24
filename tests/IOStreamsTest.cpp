// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <optional>
#include <system_error>

using namespace tests;

TEST(OStream, ReleasesTheWholeOrNothing) {
    ByteBufferOStream out;
    out << "whole";
    EXPECT_EQ(out.size(), 5U);
    EXPECT_EQ(text(out.release()), "whole");
    for (auto const state : {std::ios::failbit, std::ios::eofbit}) {
        out << "part";
        out.setstate(state);
        EXPECT_THROW(discard(out.release()), std::ios::failure);
        EXPECT_EQ(text(out.rdbuf()->release()), "part");
        out.clear();
    }
    EXPECT_THROW(out.write("", std::numeric_limits<std::streamsize>::max()), std::bad_alloc);
    EXPECT_THROW(discard(out.release()), std::ios::failure);
}

TEST(Streams, MoveWithTheirBytesStateAndPosition) {
    ByteBufferOStream out(100);
    out << std::hex << "0x";
    ByteBufferOStream other;
    other << "old";
    auto const show = [](ByteBufferOStream const& stream) {
        return std::to_string(stream.size()) + (stream.flags() & std::ios::hex ? " hex" : "");
    };
    EXPECT_EQ(passOn(out, other, show), "0");
    other << 255;
    EXPECT_EQ(text(other.release()), "0xff");
    out << "used again";
    EXPECT_EQ(out.size(), 10U);

    ByteBufferIStream in(ByteBuffer(bytes("12 34 rest")));
    ByteBufferIStream target{ByteBufferView(std::string_view("old"))};
    int first = 0;
    in >> first;
    EXPECT_EQ(
        passOn(in, target, [](ByteBufferIStream const& stream) { return text(stream.unread()); }),
        "");
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_TRUE(target >> first);
    EXPECT_EQ(first, 34);
}

TEST(IStream, TellsAndSkipsWhatIsUnread) {
    ByteBuffer const buffer(bytes("abcdef"));
    ByteBufferIStream in(buffer); // borrowed
    EXPECT_EQ(in.get(), 'a');
    EXPECT_EQ(in.unread().data(), buffer.data() + 1);
    EXPECT_EQ(in.unread().size(), 5U);
    in.skip(2);
    EXPECT_EQ(in.peek(), 'd');
    EXPECT_ERROR(std::out_of_range, "Requested to skip more bytes than exist", in.skip(4));
    EXPECT_EQ(text(in.unread()), "def");
    in.skip(3);
    EXPECT_TRUE(in.unread().empty());
    EXPECT_TRUE(in.good());
    EXPECT_EQ(in.get(), std::char_traits<char>::eof());
    EXPECT_THROW(discard(in.unread()), std::ios::failure);
    EXPECT_FALSE(unread(in));
}

TEST(IStream, GivesBlockDecodersTheBytesOfAnyStreamThatHasThem) {
    NonOwningByteBufferViewIStreambuf source(ByteBufferView(std::string_view("block")));
    std::istream plain(&source);
    EXPECT_EQ(plain.get(), 'b');
    EXPECT_EQ(text(unread(plain).value()), "lock");
    skip(plain, 4);
    EXPECT_EQ(unread(plain).value().size(), 0U);
    EXPECT_THROW(skip(plain, 1), std::out_of_range);

    // One that continues elsewhere has more than the bytes at hand.
    struct Parts : ByteBufferIStreambuf {
        using ByteBufferIStreambuf::ByteBufferIStreambuf;
    } parts(ByteBufferView(std::string_view("part")));
    std::istream inParts(&parts);
    std::istringstream foreign("foreign");
    std::istream none(nullptr);
    for (std::istream* const stream : {&inParts, static_cast<std::istream*>(&foreign), &none}) {
        EXPECT_FALSE(unread(*stream));
        skip(*stream, 0);
        EXPECT_THROW(skip(*stream, 1), std::out_of_range);
    }
}

// Requests a stop, or takes no more, once it has so many bytes.
struct Target : std::streambuf {
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        auto const room = most - taken.size();
        taken.append(s, std::min(static_cast<std::size_t>(n), room));
        if (taken.size() >= stopAt) {
            stop.request_stop();
        }
        return std::min(n, static_cast<std::streamsize>(room));
    }
    int_type overflow(int_type c) override {
        char const character = traits_type::to_char_type(c);
        return xsputn(&character, 1) == 1 ? traits_type::not_eof(c) : traits_type::eof();
    }
    int sync() override { return ++flushes, 0; }
    stop_source stop;
    std::string taken;
    std::size_t stopAt = 1U << 30;
    std::size_t most = 1U << 30;
    int flushes = 0;
};

TEST(StoppableOStream, PassesEverythingOnAtOnceUntilAStop) {
    Target target;
    std::ostream to(&target);
    StoppableOStream out(target.stop.get_token(), to);
    out << 'a' << "bc" << 4 << '\xFF';
    EXPECT_EQ(target.taken, "abc4\xFF"); // without a flush
    out.flush();
    EXPECT_EQ(target.flushes, 1);
    out.throwIfStopped();

    std::string const large(1000000, 'x');
    target.stopAt = 300000;
    try {
        out << large;
        FAIL() << "not stopped";
    } catch (std::system_error const& error) {
        EXPECT_EQ(error.code(), std::errc::operation_canceled);
    }
    EXPECT_LT(target.taken.size(), 300000U + 65536);
    EXPECT_GE(target.taken.size(), 300000U);
    EXPECT_TRUE(to.good());
    EXPECT_THROW(out.throwIfStopped(), std::system_error);
    EXPECT_THROW(out.put('x'), std::ios::failure); // what swallows one exception gets another
}

TEST(StoppableOStream, LeavesATargetFailedThatTakesNoMore) {
    for (bool const isSingle : {false, true}) {
        Target target;
        target.most = 3;
        std::ostream to(&target);
        StoppableOStream out(stop_token(), to);
        EXPECT_THROW(isSingle ? out << 'a' << 'b' << 'c' << 'd' : out << "abcd", std::ios::failure);
        EXPECT_EQ(target.taken, "abc");
        EXPECT_TRUE(to.bad());
    }
}
