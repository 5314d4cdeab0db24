// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

using namespace tests;

namespace {

using std::ios_base;

constexpr auto describe = [](auto& stream) {
    std::ostringstream said;
    bool const own = stream.std::ios::rdbuf() == stream.rdbuf();
    said << stream.rdstate() << stream.exceptions() << stream.fill() << own;
    if constexpr (requires { stream.size(); }) {
        said << stream.size();
    } else {
        said << text(stream.rdbuf()->unread());
    }
    return said.str();
};

TEST(ByteBufferOStream, ReleasesOnlyTheWhole) {
    ByteBufferOStream out(9);
    out << 42 << " apples";
    for (ios_base::iostate const state : {ios_base::eofbit, ios_base::failbit, ios_base::badbit}) {
        out.exceptions(ios_base::goodbit);
        out.clear(state);
        EXPECT_THROW(discard(out.release()), ios_base::failure);
    }
    out.clear();
    EXPECT_EQ(text(out.release()), "42 apples");
    ByteBufferOStream full;
    full << "part";
    EXPECT_THROW(full.write("", std::numeric_limits<std::streamsize>::max()), std::length_error);
    EXPECT_THROW(full << 1, ios_base::failure);
    EXPECT_THROW(discard(full.release()), ios_base::failure);
    EXPECT_EQ(text(full.rdbuf()->release()), "part");
}

TEST(ByteBufferOStream, IsLikeANewOneWhenMovedFrom) {
    ByteBufferOStream out, other, unused;
    std::string const asNew = describe(unused);
    out << "moved";
    out.fill('*');
    out.setstate(ios_base::failbit);
    EXPECT_EQ(passOn(out, other, describe), asNew);
    EXPECT_EQ(text(other.rdbuf()->release()), "moved");
}

TEST(ByteBufferIStream, IsLikeANewOneWhenMovedFrom) {
    for (MakeBuffer make : kinds) {
        Blocks blocks;
        ByteBufferIStream in(make(blocks, "moved")), other(make(blocks, "x"));
        ByteBufferIStream const none{ByteBufferView()};
        in.fill('*');
        in.get();
        EXPECT_EQ(passOn(in, other, describe), describe(none));
        EXPECT_EQ(blocks.freed, blocks.made / 2);
        EXPECT_EQ(text(other.unread()), "oved");
        EXPECT_EQ(other.gcount(), 1);
        EXPECT_EQ(other.exceptions(), ios_base::badbit);
    }
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
    EXPECT_EQ(text(unread(in).value()), "apples, 0");
    in >> number;
    EXPECT_THROW(discard(in.unread()), ios_base::failure);
    EXPECT_THROW(in.skip(0), ios_base::failure);
    EXPECT_EQ(unread(in), std::nullopt);
    EXPECT_ERROR(std::out_of_range, "Requested to skip more bytes than exist", skip(in, 1));
    in.clear();
    EXPECT_EQ(text(unread(in).value()), "apples, 0");
    skip(in, 8);
    in >> number;
    EXPECT_TRUE(in.eof());
    EXPECT_EQ(in.unread().size(), 0);
    EXPECT_EQ(unread(in).value().size(), 0);
    EXPECT_THROW(in.setstate(ios_base::badbit), ios_base::failure);
}

TEST(Unread, IsEmptyOverAnotherStreamBuffer) {
    std::istringstream foreign("foreign");
    std::istream none(nullptr);
    struct Parts : ByteBufferIStreambuf { // may have more bytes than those at hand
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

// Does with each piece what a test wants.
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

TEST(StoppableOStream, HoldsNoBytesBack) {
    Target target;
    std::string const large(200'000, 'x');
    std::size_t const before = allocations();
    StoppableOStream out(stop_token(), target.stream);
    EXPECT_EQ(allocations(), before);
    std::string expected;
    for (std::string const& piece : {std::string("\xFF"), std::string("12"), large}) {
        piece.size() == 1 ? out.put(piece[0]) : piece.size() == 2 ? out << 12 : out << large;
        EXPECT_EQ(target.got, expected += piece);
    }
    EXPECT_EQ(target.largest, 65536);
    EXPECT_EQ(out.rdbuf()->sputc('\xFF'), 0xFF);
    EXPECT_EQ(out.rdbuf()->sputn("", 0) + out.rdbuf()->sputn("", -1), 0);
    EXPECT_EQ(target.flushed, 0);
    out.flush();
    EXPECT_EQ(target.flushed, 1);
    EXPECT_THROW(out.flush(), ios_base::failure);
}

TEST(StoppableOStream, StopsBetweenPieces) {
    using Write = void (*)(std::ostream&);
    constexpr std::pair<Write, std::size_t> cases[] = {
        {[](std::ostream& out) { out.put('x').put('x'); }, 1},
        {[](std::ostream& out) { out << 123 << ' '; }, 3},
        {[](std::ostream& out) { out << std::string(65537, 'x'); }, 65536}};
    for (auto const& [write, passedOn] : cases) {
        Target target;
        stop_source source;
        StoppableOStream out(source.get_token(), target.stream);
        out.throwIfStopped();
        target.take = [&](std::streamsize n) { return source.request_stop(), n; };
        std::error_code code;
        try {
            write(out);
        } catch (std::system_error const& e) {
            code = e.code();
        }
        EXPECT_EQ(code, std::errc::operation_canceled);
        EXPECT_EQ(target.got.size(), passedOn);
        EXPECT_TRUE(target.stream.bad());
        EXPECT_THROW(out.put('x'), ios_base::failure);
        EXPECT_ERROR(std::system_error, std::system_error(code).what(), out.throwIfStopped());
    }
}

TEST(StoppableOStream, ThrowsWhatIsWrongWithTheTarget) {
    auto const said = [](ios_base::iostate state, ios_base::iostate thrown, auto take) {
        std::string result;
        for (char const* content : {"x", "long"}) {
            Target target;
            target.take = take;
            if (state == ios_base::goodbit) {
                target.stream.exceptions(thrown);
            }
            target.stream.setstate(state);
            StoppableOStream out(stop_token(), target.stream);
            result += messageOf<ios_base::failure>(
                [&] { content[1] == '\0' ? out.put(*content) : out << content; });
            EXPECT_TRUE(target.stream.bad());
            result += target.got;
        }
        return result;
    };
    Target target;
    target.stream.exceptions(ios_base::badbit);
    StoppableOStream(stop_token(), target.stream) << "part";
    EXPECT_TRUE(target.stream.good());
    StoppableOStream(stop_token(), target.stream).setstate(ios_base::failbit);
    EXPECT_TRUE(target.stream.bad());
    std::string const failed =
        ios_base::failure("The target of a StoppableOStream takes no more bytes").what();
    auto const nothing = [](auto) -> std::streamsize { throw std::bad_alloc(); };
    for (ios_base::iostate const thrown : {ios_base::goodbit, ios_base::badbit}) {
        EXPECT_EQ(said({}, thrown, [](auto n) { return n - 1; }), failed + failed + "lon");
        EXPECT_EQ(said({}, thrown, nothing), "another exceptionanother exception");
        EXPECT_EQ(said(ios_base::failbit, thrown, nothing), failed + failed);
    }
}

} // namespace
