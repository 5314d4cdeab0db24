// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

using namespace tests;

namespace {

using std::ios_base;

TEST(ByteBufferOStream, ReleasesOnlyTheWhole) {
    ByteBufferOStream out(9);
    out << "part";
    EXPECT_THROW(out.write("", std::numeric_limits<std::streamsize>::max()), std::length_error);
    EXPECT_TRUE(out.bad());
    for (ios_base::iostate const state : {ios_base::eofbit, ios_base::failbit, ios_base::badbit}) {
        out.exceptions(ios_base::goodbit);
        out.clear(state);
        EXPECT_THROW(discard(out.release()), ios_base::failure);
    }
    EXPECT_EQ(text(out.rdbuf()->release()), "part");
}

// A move transfers the stream's state, and each stream keeps its own stream buffer.
auto const describe = [](auto& stream) {
    std::ostringstream said;
    said << stream.rdstate() << stream.exceptions() << stream.fill()
         << (stream.std::ios::rdbuf() == stream.rdbuf()) << stream.rdbuf()->in_avail();
    return said.str();
};

TEST(IOStreams, AreLikeNewOnesWhenMovedFrom) {
    Blocks blocks;
    ByteBufferOStream out, other, unused;
    ByteBufferIStream in(blocks.adopt("moved")), otherIn(blocks.adopt("x")), none{ByteBufferView()};
    out << "moved";
    out.setstate(ios_base::failbit);
    for (std::ios* const stream : {static_cast<std::ios*>(&out), static_cast<std::ios*>(&in)}) {
        stream->fill('*');
    }
    in.get();
    EXPECT_EQ(passOn(out, other, describe), describe(unused));
    EXPECT_EQ(passOn(in, otherIn, describe), describe(none));
    EXPECT_EQ(text(other.rdbuf()->release()), "moved");
    EXPECT_EQ(text(otherIn.unread()), "oved");
    EXPECT_EQ(otherIn.gcount(), 1);
    EXPECT_EQ(blocks.freed, 1);
}

TEST(ByteBufferIStream, ShowsWhatIsUnreadUnlessItHasFailed) {
    static_assert(!std::is_constructible_v<ByteBufferIStream, ByteBuffer const>);
    ByteBuffer const buffer(bytes("7 apples, 0"));
    ByteBufferIStream in(buffer);
    int number = 0;
    in >> number;
    EXPECT_EQ(in.unread().data(), buffer.data() + 1);
    in.skip(1);
    EXPECT_ERROR(std::out_of_range, "Requested to skip more bytes than exist", in.skip(10));
    in >> number;
    EXPECT_THROW(discard(in.unread()), ios_base::failure);
    EXPECT_THROW(in.skip(0), ios_base::failure);
    in.clear();
    in.skip(8);
    in >> number;
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(in.unread().size(), 0);
    EXPECT_THROW(in.setstate(ios_base::badbit), ios_base::failure);
}

TEST(Unread, IsEmptyOverAnotherStreamBuffer) {
    std::istringstream foreign("foreign");
    std::istream none(nullptr);
    struct Parts : ByteBufferIStreambuf { // may have more bytes later
        using ByteBufferIStreambuf::ByteBufferIStreambuf;
    } parts(ByteBufferView(std::string_view("part")));
    std::istream inParts(&parts);
    for (std::istream* const in : {static_cast<std::istream*>(&foreign), &none, &inParts}) {
        EXPECT_EQ(unread(*in), std::nullopt);
        skip(*in, 0);
        EXPECT_THROW(skip(*in, 1), std::out_of_range);
    }
    EXPECT_EQ(foreign.get(), 'f');
}

TEST(Take, ReadsInPlaceWhatTheStreamOwnsAndCopiesTheRest) {
    struct Derived : ByteBufferIStreambuf {
        using ByteBufferIStreambuf::ByteBufferIStreambuf;
        void read(std::string& chars) { setg(chars.data(), chars.data(), &*chars.end()); }
    };
    std::string const content = "a long enough text";
    ByteBuffer const lent(bytes(content));
    ByteBuffer owned = lent.clone();
    std::byte* const first = owned.data();
    ByteBufferIStream owner(std::move(owned)), borrower(lent);
    NonOwningByteBufferViewIStreambuf view(lent);
    Derived derived(std::make_unique<ByteBuffer>(lent.clone()));
    std::istream viewer(&view), ofDerived(&derived);
    std::istringstream foreign(content);
    for (std::istream* const in :
         {static_cast<std::istream*>(&owner), static_cast<std::istream*>(&borrower), &viewer,
          &ofDerived, static_cast<std::istream*>(&foreign)}) {
        in->get();
        EXPECT_EQ(text(take(*in, 0)), "");
        ByteBuffer const taken = take(*in, 5), next = take(*in, 7);
        EXPECT_EQ(text(taken) + text(next), content.substr(1, 12));
        EXPECT_EQ(taken.data() == first + 1 && next.data() == first + 6, in == &owner);
        EXPECT_EQ(in->get(), content[13]);
        EXPECT_EQ(text(take(*in, std::size_t(-1))), content.substr(14));
        EXPECT_EQ(in->rdstate(), ios_base::eofbit | ios_base::failbit);
        in->clear(ios_base::eofbit);
        EXPECT_EQ(text(take(*in, 1)), "");
        EXPECT_TRUE(in->fail());
    }
    constexpr auto tooFew = "Requested to take more bytes than exist";
    EXPECT_THROW(discard(owner.take(0)), ios_base::failure);
    owner.clear();
    EXPECT_ERROR(std::out_of_range, tooFew, owner.take(1));
    EXPECT_ERROR(std::out_of_range, tooFew, view.take(1));
    std::string chars = "chars";
    derived.read(chars);
    EXPECT_EQ(text(derived.take(5)), "chars");
}

TEST(Take, KeepsTheBlockAsLongAsTheStreamOrAPart) {
    for (bool const isStreamLast : {false, true}) {
        Blocks blocks;
        std::optional<ByteBufferIStream> in(blocks.adopt("a block"));
        std::optional<ByteBuffer> part = in->take(2);
        isStreamLast ? part.reset() : in.reset();
        EXPECT_EQ(blocks.freed, 0);
        EXPECT_EQ(isStreamLast ? text(in->unread()) : text(*part), isStreamLast ? "block" : "a ");
        isStreamLast ? in.reset() : part.reset();
        EXPECT_EQ(blocks.freed, 1);
    }
}

TEST(Prepare, IsRoomInTheBlockThatIsReleased) {
    ByteBufferOStream out;
    StoppableOStream first(stop_token(), out), second(stop_token(), first);
    std::string expected;
    for (std::ostream* const to : {static_cast<std::ostream*>(&out),   //
                                   static_cast<std::ostream*>(&first), //
                                   static_cast<std::ostream*>(&second)}) {
        *to << "written ";
        auto const room = prepare(*to, 700).value();
        EXPECT_GE(room.size(), 700U);
        std::memcpy(room.data(), "prepared ", 9);
        EXPECT_THROW(commit(*to, room.size() + 1), std::out_of_range);
        commit(*to, 9);
        expected += "written prepared ";
    }
    EXPECT_EQ(out.size(), expected.size());
    std::byte const* const room = out.prepare(0).data();
    ByteBuffer const released = out.release();
    EXPECT_EQ(text(released), expected);
    EXPECT_EQ(released.data() + released.size(), room);
}

TEST(Prepare, IsRefusedWhereNothingCanBeWritten) {
    struct Derived : ByteBufferOStreambuf {
    } derived;
    std::ostringstream foreign;
    ByteBufferOStream failed;
    failed.setstate(ios_base::failbit);
    std::ostream none(nullptr), ofDerived(&derived);
    for (std::ostream* const to : {static_cast<std::ostream*>(&foreign),
                                   static_cast<std::ostream*>(&failed), &none, &ofDerived}) {
        StoppableOStream stoppable(stop_token(), *to);
        EXPECT_FALSE(prepare(*to, 1) || prepare(stoppable, 1));
        commit(*to, 0);
        EXPECT_THROW(commit(stoppable, 1), std::out_of_range);
    }
    EXPECT_THROW(discard(failed.prepare(1)), ios_base::failure);
    EXPECT_THROW(failed.commit(0), ios_base::failure);

    for (bool const isPrepared : {false, true}) {
        ByteBufferOStream out;
        stop_source source;
        StoppableOStream stoppable(source.get_token(), out);
        if (isPrepared) {
            discard(prepare(stoppable, 1));
        }
        source.request_stop();
        EXPECT_THROW(isPrepared ? commit(stoppable, 1) : discard(prepare(stoppable, 1)),
                     std::system_error);
        EXPECT_TRUE(stoppable.bad() && out.bad());
    }
    for (bool const isMember : {false, true}) {
        ByteBufferOStream out;
        auto const most = std::size_t(-1);
        EXPECT_THROW(isMember ? discard(out.prepare(most)) : discard(prepare(out, most)),
                     std::length_error);
        EXPECT_TRUE(out.bad());
    }
}

// Calls a test's function with each piece.
struct Target : std::streambuf {
    int_type overflow(int_type c) override {
        char const byte = traits_type::to_char_type(c);
        return xsputn(&byte, 1) == 1 ? c : traits_type::eof();
    }
    std::streamsize xsputn(char const* s, std::streamsize n) override {
        std::streamsize const taken = take(n);
        got.append(s, static_cast<std::size_t>(taken));
        largest = std::max(largest, n);
        return taken;
    }
    int sync() override { return flushed++ == 0 ? 0 : -1; }

    std::function<std::streamsize(std::streamsize)> take = [](std::streamsize n) { return n; };
    std::string got;
    std::streamsize largest = 0;
    int flushed = 0;
    std::ostream stream{this};
};

TEST(StoppableOStream, PassesOnAtOnceInPiecesAndFlushes) {
    Target target;
    std::string large(200'000, '\0');
    std::generate(large.begin(), large.end(), [n = 0]() mutable { return char(n++ % 251); });
    std::size_t const before = allocations();
    StoppableOStream out(stop_token(), target.stream);
    EXPECT_EQ(allocations(), before);
    out.put('\xFF');
    EXPECT_EQ(target.got, "\xFF");
    out << 12 << large;
    EXPECT_EQ(target.got, "\xFF"
                          "12" +
                              large);
    EXPECT_EQ(target.largest, 65536);
    EXPECT_EQ(out.rdbuf()->sputn("", -1), 0);
    EXPECT_EQ(target.flushed, 0);
    out.flush();
    EXPECT_EQ(target.flushed, 1);
    EXPECT_THROW(out.flush(), ios_base::failure); // because the target's second flush fails
}

TEST(StoppableOStream, StopsBetweenPieces) {
    for (std::size_t const written : {1U, 3U, 65536U}) {
        Target target;
        stop_source source;
        StoppableOStream out(source.get_token(), target.stream);
        target.take = [&](std::streamsize n) { return source.request_stop(), n; };
        auto const write = [&] {
            written == 1 ? out.put('x').put('x')
                         : out << std::string(written + written / 65536, 'x') << "more";
        };
        auto const stopped = std::make_error_code(std::errc::operation_canceled);
        EXPECT_ERROR(std::system_error, std::system_error(stopped).what(), write());
        EXPECT_EQ(target.got.size(), written);
        EXPECT_TRUE(target.stream.bad());
        EXPECT_TRUE(out.bad());
        EXPECT_ERROR(std::system_error, std::system_error(stopped).what(), out.throwIfStopped());
    }
}

TEST(StoppableOStream, ThrowsWhatIsWrongWithTheTarget) {
    std::string const failed =
        ios_base::failure("The target of a StoppableOStream takes no more bytes").what();
    for (ios_base::iostate const thrown : {ios_base::goodbit, ios_base::badbit}) {
        for (std::string const content : {"x", "long"}) {
            Target small, broken, hasFailed;
            small.take = [](std::streamsize n) { return n - 1; };
            broken.take = [](auto) -> std::streamsize { throw std::bad_alloc(); };
            hasFailed.stream.setstate(ios_base::failbit);
            auto const write = [&](Target& target) {
                target.stream.exceptions(thrown);
                StoppableOStream out(stop_token(), target.stream);
                content == "x" ? out.put('x') : out << content;
            };
            EXPECT_ERROR(ios_base::failure, failed, write(small));
            EXPECT_ERROR(ios_base::failure, failed, write(hasFailed));
            EXPECT_THROW(write(broken), std::bad_alloc);
            EXPECT_EQ(small.got + hasFailed.got, content == "x" ? "" : "lon");
            EXPECT_TRUE(small.stream.bad());
            EXPECT_TRUE(broken.stream.bad());
        }
    }
    Target target;
    StoppableOStream(stop_token(), target.stream) << "part";
    EXPECT_TRUE(target.stream.good());
    StoppableOStream(stop_token(), target.stream).setstate(ios_base::failbit);
    EXPECT_TRUE(target.stream.bad());
}

} // namespace
