// SPDX-License-Identifier: Apache-2.0
#include "Support.h"

#include <courier/hub/serialisation/IOStreams.h>

using namespace tests;

namespace {

using std::ios_base;

static_assert(!std::is_constructible_v<ByteBufferIStream, ByteBuffer const>);

// A class derived from one of ours may have more bytes later, or another get area.
template <class Base> struct Derived : Base {
    using Base::Base;
    void read(std::string& chars) { this->setg(chars.data(), chars.data(), &*chars.end()); }
};

TEST(Unread, IsEmptyOverAnotherStreamBuffer) {
    std::istringstream foreign("foreign");
    Derived<ByteBufferIStreambuf> derived(ByteBufferView(std::string_view("part")));
    std::istream none(nullptr), ofDerived(&derived);
    for (std::istream* const in : {static_cast<std::istream*>(&foreign), &none, &ofDerived}) {
        EXPECT_EQ(unread(*in), std::nullopt);
        skip(*in, 0);
        EXPECT_THROW(skip(*in, 1), std::out_of_range);
    }
    EXPECT_EQ(foreign.get(), 'f');
}

TEST(Take, CopiesFromAnotherStreamBuffer) {
    Derived<ByteBufferIStreambuf> derived{ByteBufferView()};
    std::string chars(1'000'000, 'x');
    derived.read(chars);
    EXPECT_EQ(text(derived.take(5)), "xxxxx");
    std::istream ofDerived(&derived);
    std::istringstream foreign(chars.substr(5));
    for (std::istream* const in : {&ofDerived, static_cast<std::istream*>(&foreign)}) {
        failAfter(0);
        EXPECT_THROW(discard(take(*in, 1)), std::bad_alloc);
        EXPECT_TRUE(stopFailing() && in->bad());
        in->clear();
        EXPECT_EQ(text(take(*in, 999'990)), chars.substr(10));
        EXPECT_EQ(text(take(*in, std::size_t(-1))), "xxxxx"); // without taking the memory
        EXPECT_EQ(in->rdstate(), ios_base::eofbit | ios_base::failbit);
        EXPECT_EQ(text(take(*in, 1)), "");
    }
}

TEST(Prepare, IsRefusedWhereNothingCanBeWritten) {
    Derived<ByteBufferOStreambuf> derived;
    std::ostringstream foreign;
    std::ostream none(nullptr), ofDerived(&derived);
    for (std::ostream* const to : {static_cast<std::ostream*>(&foreign), &none, &ofDerived}) {
        StoppableOStream stoppable(stop_token(), *to);
        EXPECT_FALSE(prepare(*to, 1) || prepare(stoppable, 1));
        commit(*to, 0);
        EXPECT_THROW(commit(stoppable, 1), std::out_of_range);
    }
    ByteBufferOStream failed;
    failed.setstate(ios_base::failbit);
    EXPECT_THROW(discard(failed.prepare(1)), ios_base::failure);
    EXPECT_THROW(failed.commit(0), ios_base::failure);
}

TEST(StoppableOStream, PassesOnInPiecesAndFlushes) {
    Target target;
    std::string large(200'000, '\0');
    std::generate(large.begin(), large.end(), [n = 0]() mutable { return char(n++ % 251); });
    std::size_t const before = allocations();
    StoppableOStream out(stop_token(), target.stream);
    EXPECT_EQ(allocations(), before);
    out << large;
    EXPECT_EQ(target.got, large);
    EXPECT_EQ(target.largest, 65536);
    EXPECT_EQ(out.rdbuf()->sputn("", -1), 0);
    out.flush();
    EXPECT_EQ(target.flushed, 1);
    EXPECT_THROW(out.flush(), ios_base::failure); // because the target's second flush fails
}

TEST(StoppableOStream, StopsBetweenPieces) {
    for (std::size_t const written : {1U, 65536U}) {
        Target target;
        stop_source source;
        StoppableOStream out(source.get_token(), target.stream);
        target.take = [&](std::streamsize n) { return source.request_stop(), n; };
        auto const write = [&] {
            written == 1 ? out.put('x').put('x') : out << std::string(written + 1, 'x');
        };
        EXPECT_THROW(write(), std::system_error);
        EXPECT_EQ(target.got.size(), written);
        EXPECT_TRUE(target.stream.bad() && out.bad());
    }
}

TEST(StoppableOStream, ThrowsWhatIsWrongWithTheTarget) {
    for (std::string const content : {"x", "long"}) {
        Target small, broken;
        small.take = [](std::streamsize n) { return n - 1; };
        broken.take = [](auto) -> std::streamsize { throw std::bad_alloc(); };
        auto const write = [&](Target& target) {
            target.stream.exceptions(ios_base::badbit);
            StoppableOStream out(stop_token(), target.stream);
            content == "x" ? out.put('x') : out << content;
        };
        EXPECT_THROW(write(small), ios_base::failure);
        EXPECT_THROW(write(broken), std::bad_alloc);
        EXPECT_TRUE(small.stream.bad() && broken.stream.bad());
    }
}

} // namespace
