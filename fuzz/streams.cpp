// SPDX-License-Identifier: Apache-2.0
// What is written through a ByteBufferOStream, a StoppableOStream and a ByteBufferOStreambuf, and
// read through every stream buffer, stream and byte iterator, against the standard library's string
// streams and plain positions.
#include "../tests/Support.h"
#include "Input.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <optional>

namespace {

using namespace tests;
using fuzz::Input;
using std::ios;

using fuzz::none, fuzz::said;
std::string const tooFew = "Requested to take more bytes than exist";
constexpr std::size_t longest = std::numeric_limits<std::ptrdiff_t>::max();
std::streamsize size(std::string const& text) { return static_cast<std::streamsize>(text.size()); }
std::string failure(char const* text) { return ios::failure(text).what(); }

// What a move must transfer. `like` gives it for a new stream, which a moved-from one is like.
std::string describe(auto& stream) {
    std::ostringstream said;
    said << stream.rdstate() << stream.exceptions() << stream.fill()
         << (stream.ios::rdbuf() == stream.rdbuf()) << stream.rdbuf()->in_avail();
    return said.str();
}
template <class Stream> void move(Input& input, Stream& stream, Stream const& unused, Stream used) {
    std::string const before = describe(stream), fresh = describe(unused);
    Stream taken = input.flag() ? Stream(std::move(stream)) : std::move(used = std::move(stream));
    SAME(describe(taken), before);
    SAME(describe(stream), fresh);
    Stream& itself = taken;
    taken = std::move(itself);
    input.flag() ? void(stream = std::move(taken)) : stream.swap(taken);
    SAME(describe(stream), before);
    SAME(describe(taken), fresh);
}

struct Sink : ByteBufferOStreambuf { // which shows its room
    using ByteBufferOStreambuf::ByteBufferOStreambuf, ByteBufferOStreambuf::overflow;
    [[nodiscard]] std::size_t room() const { return static_cast<std::size_t>(epptr() - pptr()); }
    [[nodiscard]] char const* end() const { return pptr(); }
};

struct Writer {
    Input& input;
    std::size_t reserved = input.size();
    ByteBufferOStream out{reserved};
    StoppableOStream stoppable{stop_token(), out};
    std::ostringstream model{};
    Sink sink{reserved};
    std::string inSink{};

    void put(std::size_t n) {
        std::string const bytes = input.fresh(n);
        bool const direct = input.flag();
        auto const both = [&](auto act) {
            act(direct ? static_cast<std::ostream&>(out) : stoppable), act(model);
        };
        input.oneOf(DO(both([&](std::ostream& to) { to.put(static_cast<char>(n)); })),
                    DO(both([&](std::ostream& to) { to.write(bytes.data(), size(bytes)); })),
                    DO(both([&](std::ostream& to) { to << n << ' ' << bytes << std::endl; })));
    }

    void prepareAndCommit(std::size_t n) {
        std::string const bytes = input.fresh(n);
        bool const direct = input.flag(), isMember = direct && input.flag();
        StoppableOStream nested(stop_token(), stoppable);
        std::ostream& to = direct ? static_cast<std::ostream&>(out) : nested;
        auto const room = isMember ? out.prepare(n) : prepare(to, n).value();
        SAME(room.size() >= n, true);
        std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(room.data()));
        auto const count = [&](std::size_t k) { isMember ? out.commit(k) : commit(to, k); };
        SAME_ERROR(std::out_of_range, "Requested to commit more bytes than were prepared",
                   count(room.size() + 1));
        count(n);
        model << bytes;
        std::size_t const left = longest - out.size();
        std::size_t const huge = input.length(left) | std::size_t{1} << 62; // nobody has that
        SAME(said([&] { discard(isMember ? out.prepare(huge) : prepare(to, huge)); }),
             huge > left ? "vector too long" : std::bad_alloc().what());
        SAME(to.bad(), true);
        nested.clear();
        stoppable.clear();
        out.clear();
    }

    // Room that is enough is used; otherwise it grows to at least 512 and twice what was written.
    void putInSink(std::size_t n) {
        std::size_t const room = sink.room();
        char const* const end = sink.end();
        std::string const bytes = input.fresh(n);
        if (n == 1) {
            sink.sputc(bytes[0]);
        } else if (input.flag()) {
            std::copy(bytes.begin(), bytes.end(), reinterpret_cast<char*>(sink.prepare(n).data()));
            sink.commit(n);
        } else {
            SAME(sink.sputn(bytes.data(), size(bytes)), size(bytes));
        }
        if (n <= room) {
            SAME(sink.end(), end + n);
        } else {
            std::size_t const before = inSink.size();
            SAME(sink.room() + before + n >= std::max({before + n, 2 * before, std::size_t{512}}),
                 true);
        }
        inSink += bytes;
    }
    void overflow() {
        SAME(sink.overflow(std::char_traits<char>::eof()) != std::char_traits<char>::eof(), true);
        SAME(sink.sputn("", -1), 0);
        std::size_t const n = input.length(longest - inSink.size());
        if (n >> 48 != 0 && n <= longest) {
            SAME(said([&] { sink.sputn("", static_cast<std::streamsize>(n)); }),
                 n > longest - inSink.size() ? "vector too long" : std::bad_alloc().what());
        } else if (n > longest) {
            SAME(said([&] { Sink made(n); }), "vector too long");
        }
    }

    // Nothing is written to a stream that isn't good, nor released from it.
    void fail() {
        constexpr ios::iostate states[] = {ios::eofbit, ios::failbit, ios::badbit,
                                           ios::eofbit | ios::failbit};
        ios::iostate const state = states[input.below(4)];
        bool const throws = input.flag();
        out.exceptions(ios::goodbit);
        std::string const refused = failure("The target of a StoppableOStream takes no more bytes");
        auto const attempt = [&](std::string const& error, auto act) {
            out.clear(state);
            out.exceptions(throws ? ios::badbit & ~state : ios::goodbit);
            SAME(said([&] {
                     StoppableOStream through(stop_token(), out);
                     act(through);
                 }),
                 error);
            SAME(out.bad(), error != none || (state & ios::badbit) != 0);
            out.exceptions(ios::goodbit);
        };
        attempt(refused, [](auto& to) { to.put('x'); });
        attempt(refused, [](auto& to) { to << "text"; });
        attempt(none, [&](auto& to) { SAME(prepare(to, 1) || prepare(out, 1), false); });
        attempt(none, [&](auto& to) { commit(to, 0), commit(out, 0); });
        SAME_ERROR(std::out_of_range, "Requested to commit more bytes than were prepared",
                   commit(out, 1));
        out.clear(state);
        StoppableOStream flushed(stop_token(), out);
        flushed.exceptions(ios::goodbit);
        SAME(!flushed.flush(), out.fail());
        flushed.clear();
        SAME_ERROR(ios::failure, failure("ByteBufferOStream holds only a part of what was written"),
                   out.release());
        out.clear();
        {
            StoppableOStream spoiled(stop_token(), out); // by the encoder itself
            spoiled.exceptions(ios::goodbit);
            spoiled.setstate(state);
        }
        SAME(out.rdstate(), state == ios::eofbit ? ios::goodbit : ios::badbit);
        out.clear();
        out.exceptions(ios::badbit);
    }
    void stop() {
        stop_source source;
        StoppableOStream stopped(source.get_token(), out);
        stopped.throwIfStopped();
        source.request_stop();
        auto const attempt = [&](bool failsTarget, auto act) {
            SAME_ERROR(
                std::system_error,
                std::system_error(std::make_error_code(std::errc::operation_canceled)).what(),
                act());
            SAME(stopped.bad() && out.bad(), failsTarget);
            stopped.clear();
            out.clear();
        };
        attempt(true, [&] { stopped << 1; });
        attempt(true, [&] { discard(prepare(stopped, 1)); });
        attempt(true, [&] { commit(stopped, 0); });
        attempt(false, [&] { stopped.throwIfStopped(); });
    }
    void moveOut() {
        ByteBufferOStream used;
        used << "used";
        used.setstate(ios::failbit);
        move(input, out, ByteBufferOStream(), std::move(used));
    }
    void moveSink() {
        Sink other(reserved), &itself = other;
        other.sputn("other", 5);
        other = std::move(sink);
        SAME(sink.size(), 0U);
        other = std::move(itself);
        sink = Sink(std::move(other));
        SAME(other.size(), 0U);
    }

    void step() {
        std::size_t const n = input.size(sink.room());
        input.oneOf(DO(put(n)), DO(put(n)), DO(putInSink(n)), DO(putInSink(n)), DO(overflow()),
                    DO(prepareAndCommit(n)), DO(moveOut()), DO(stop()), DO(fail()), DO(moveSink()),
                    DO(SAME(text(out.release()), model.str()); model.str({})),
                    DO(SAME(text(sink.release()), inSink); inSink.clear()));
        SAME(out.rdstate(), ios::goodbit);
        SAME(stoppable.rdstate(), ios::goodbit);
        SAME(out.size(), model.view().size());
        SAME(sink.size(), inSink.size());
    }
};

// The operations on a stream: with n bytes of room, a byte, and a number for the result.
using Count = std::streamsize;
using Act = Count (*)(std::istream& in, std::string& got, char byte);
#define ACT(...)                                                                                   \
    std::pair<char const*, Act>(#__VA_ARGS__,                                                      \
                                [](std::istream& in, [[maybe_unused]] auto& got,                   \
                                   [[maybe_unused]] char byte) { return Count(__VA_ARGS__); })
constexpr std::pair<char const*, Act> acts[] = {
    ACT(!in.read(got.data(), size(got))),
    ACT(in.readsome(got.data(), size(got))),
    ACT(in.rdbuf()->sgetn(got.data(), size(got))),
    ACT(in.rdbuf()->sgetn(got.data(), -1)),
    ACT(!std::getline(in, got, byte)),
    ACT(!(in >> got)),
    ACT(!in.ignore(size(got), std::uint8_t(byte))),
    ACT(!in.ignore(size(got))),
    ACT(in.get()),
    ACT(in.peek()),
    ACT(in.rdbuf()->sgetc()),
    ACT(in.rdbuf()->sbumpc()),
    ACT(in.rdbuf()->snextc()),
    ACT(in.rdbuf()->sputc(byte)),
    ACT(!in.unget()),
    ACT(!in.putback(byte)),
    ACT(in.rdbuf()->sungetc()),
    ACT(in.rdbuf()->sputbackc(byte)),
};

std::string act(Act act, std::istream& in, std::size_t n) {
    std::string got(n, '-');
    std::string said;
    try {
        said = std::to_string(act(in, got, static_cast<char>(n)));
    } catch (ios::failure const&) {
        said = "bad"; // an attempt to put back before the first byte
    }
    for (std::streamsize const each :
         {in.gcount(), std::streamsize(in.rdstate()), in.rdbuf()->in_avail()}) {
        said += ' ' + std::to_string(each);
    }
    return said + got;
}

void read(Input& input, ByteBuffer const& content) {
    Blocks blocks;
    ByteBufferIStreambuf owner(std::make_unique<ByteBuffer>(blocks.adopt(text(content))));
    ByteBufferIStreambuf borrower(content);
    NonOwningByteBufferViewIStreambuf viewer(content);
    std::istringstream model(text(content));
    std::istream ofOwner(&owner), ofBorrower(&borrower), ofViewer(&viewer);
    ByteBufferIStream whole(blocks.adopt(text(content))), borrowing(content);
    std::istream* const in[] = {&ofOwner, &ofBorrower, &ofViewer, &whole, &borrowing};
    for (std::istream* const stream : {in[0], in[1], in[2], static_cast<std::istream*>(&model)}) {
        stream->exceptions(ios::badbit);
    }
    auto const unreadOfModel = [&] { return static_cast<std::size_t>(model.rdbuf()->in_avail()); };
    std::vector<std::pair<ByteBuffer, std::string>> parts; // that were taken
    auto const takeParts = [&] {
        std::size_t const left = unreadOfModel(), n = input.length(left);
        bool const isFree = input.flag(), isFew = n > left, wasGood = model.good();
        std::string bytes(std::min(n, left), '\0');
        if (isFree || (!isFew && !model.fail())) {
            auto const state = model.rdstate();
            model.clear();
            model.read(bytes.data(), isFree && !wasGood ? 0 : size(bytes));
            bytes.resize(isFree && !wasGood ? 0 : bytes.size());
            model.clear(!isFree    ? state
                        : !wasGood ? state | ios::failbit
                        : isFew    ? ios::failbit | ios::eofbit
                                   : ios::goodbit);
            std::byte const* const places[] = {owner.unread().data(),
                                               whole.rdbuf()->unread().data()};
            for (std::size_t i = 0; i < std::size(in); ++i) {
                parts.emplace_back(isFree   ? take(*in[i], n)
                                   : i == 0 ? owner.take(n)
                                   : i == 1 ? borrower.take(n)
                                   : i == 2 ? viewer.take(n)
                                   : i == 3 ? whole.take(n)
                                            : borrowing.take(n),
                                   bytes);
                SAME(text(parts.back().first), bytes);
                SAME(in[i]->rdstate(), model.rdstate());
                if (i % 3 == 0 && !bytes.empty()) {
                    SAME(parts.back().first.data(), places[i / 3]); // in place
                }
            }
            if (!bytes.empty()) { // nor can what was read before be put back
                model.str(model.str().substr(model.view().size() - unreadOfModel()));
            }
            model.ignore(0); // the number of bytes read last is the same again
            std::ranges::for_each(in, [](std::istream* stream) { stream->ignore(0); });
        } else {
            SAME(said([&] { discard(whole.take(n)); }),
                 model.fail() ? failure("ByteBufferIStream has failed") : tooFew);
            isFew ? SAME(said([&] { discard(owner.take(n)); }), tooFew) : void();
            isFew ? SAME(said([&] { discard(viewer.take(n)); }), tooFew) : void();
        }
    };
    while (input && !input.oneIn(32)) {
        ++fuzz::place.step;
        auto const& [name, does] = acts[input.below(std::size(acts))];
        fuzz::place.operation = name;
        std::size_t const n = input.size(unreadOfModel());
        std::string const expected = act(does, model, n);
        std::size_t const left = unreadOfModel(), skipped = input.length(left);
        bool const isRefused = skipped > left, hasFailed = model.fail();
        std::string const tooMany = "Requested to skip more bytes than exist";
        for (std::istream* const stream : in) {
            SAME(act(does, *stream, n), expected);
            for (auto const which : {ios::in, ios::out}) {
                SAME(stream->rdbuf()->pubseekoff(0, ios::beg, which), std::streampos(-1));
            }
            auto const state = stream->rdstate();
            std::optional<ByteBufferView> const shown = unread(*stream);
            SAME(shown.has_value(), !hasFailed);
            SAME(shown ? text(*shown) : "",
                 hasFailed ? "" : model.str().substr(model.view().size() - left));
            SAME_ERROR(std::out_of_range, isRefused || (hasFailed && skipped != 0) ? tooMany : none,
                       skip(*stream, skipped));
            SAME(stream->rdstate(), state);
        }
        SAME_ERROR(ios::failure, hasFailed ? failure("ByteBufferIStream has failed") : none,
                   whole.unread());
        SAME(said([&] { borrowing.skip(~std::size_t{0}); }),
             hasFailed ? failure("ByteBufferIStream has failed") : tooMany);
        if (!hasFailed && !isRefused) {
            model.rdbuf()->pubseekoff(static_cast<Count>(skipped), ios::cur, ios::in);
        }
        if (input.flag()) {
            model.clear();
            std::ranges::for_each(in, [](std::istream* stream) { stream->clear(); });
        }
        if (input.oneIn(4)) {
            fuzz::place.operation = "take";
            model.bad() ? void() : takeParts(); // setting a state would throw
        }
        if (input.oneIn(4)) {
            fuzz::place.operation = "move";
            ByteBufferIStreambuf taken(std::move(owner));
            SAME(owner.sgetc(), std::char_traits<char>::eof());
            owner = std::move(taken);
            SAME(taken.sgetc(), std::char_traits<char>::eof());
            ByteBufferIStreambuf& itself = owner;
            owner = std::move(itself);
            NonOwningByteBufferViewIStreambuf same(std::move(viewer)), other{ByteBufferView()};
            SAME(same.in_avail(), viewer.in_avail());
            other = std::move(same);
            viewer = std::move(other);
            for (ByteBufferIStream* const stream : {&whole, &borrowing}) {
                move(input, *stream, ByteBufferIStream(ByteBufferView()),
                     ByteBufferIStream(ByteBuffer(bytes("used"))));
            }
        }
    }
    SAME(blocks.freed, 0);
    owner = ByteBufferIStreambuf(content);
    whole = ByteBufferIStream(content);
    for (auto const& [part, bytes] : parts) {
        SAME(text(part), bytes);
    }
    parts.clear();
    SAME(blocks.freed, 2);
}

// A source of a user's own, whose next byte may fail.
template <class Base = ByteStreamImpl> struct Source final : Base {
    Source(std::string content, bool const& f, auto&&... base)
        : Base(std::move(base)...), bytes(std::move(content)), fails(f) {}
    ByteStreamIterator begin() override { return ByteStreamIterator(*this); }
    explicit operator bool() const override { return at < bytes.size(); }
    std::byte getByte() override {
        if (at == bytes.size()) {
            throw std::out_of_range("Attempt to access position beyond the end of the ByteBuffer");
        }
        return fails ? throw std::domain_error("mine") : std::byte(bytes[at++]);
    }
    std::string bytes;
    bool const& fails;
    std::size_t at = 0;
};

// The position of a byte iterator is that of its byte, and of a character iterator also that of the
// next one; at the end there is none.
void iterate(Input& input, ByteBuffer content) {
    using Place = std::optional<std::size_t>;
    std::string const bytes = text(content);
    bool const isOurs = input.flag();
    bool fails = false;
    ByteStream stream;
    SAME(said([&] { stream.getByte(); }), "ByteStream has no source");
    SAME(stream.begin() == stream.end() && !stream, true);
    if (isOurs) {
        stream = ByteStream(std::make_unique<ByteBufferByteStreamImpl>(std::move(content)));
    } else if (input.flag()) {
        stream = ByteStream(std::make_unique<Source<>>(bytes, fails));
    } else { // which has no bytes for those who ask the class that this one is derived from
        using Derived = Source<ByteBufferByteStreamImpl>;
        stream = ByteStream(std::make_unique<Derived>(bytes, fails, ByteBuffer()));
    }
    bool const never = false;
    Source<> elsewhere(std::string(2, 'x'), never);
    ByteStreamIterator it;
    ByteStreamIterator const other(elsewhere);
    ByteStreamCharIterator character;
    ByteStreamCharIterator const otherCharacter(other);
    Place at, characterAt, ahead;
    std::size_t position = 0;
    auto const next = [&] { return position < bytes.size() ? Place(position++) : Place(); };
    // Something that reads a byte if there is one, and changes nothing if it throws.
    auto const read = [&](char const* atEnd, auto act, auto follow) {
        std::string const error = atEnd != nullptr                   ? atEnd
                                  : fails && position < bytes.size() ? "mine"
                                                                     : none;
        SAME(said(act), error);
        error == none ? follow() : void();
    };
    auto advance = [post = false](auto& which) mutable {
        auto const old = which;
        if ((post = !post)) {
            auto const held = which++;
            SAME(*held, *old);
        } else {
            ++which;
        }
    };
    auto const moveStream = [&] {
        ByteStream taken(std::move(stream));
        SAME(static_cast<bool>(stream), false);
        stream = std::move(taken);
    };
    auto const readAll = [&] {
        std::string const rest = at ? bytes[*at] + bytes.substr(position) : "";
        SAME(std::string(ByteStreamCharIterator(it), {}), rest);
        position = at ? bytes.size() : position;
    };
    while (input) {
        input.oneOf(
            DO(read(
                nullptr, [&] { it = stream.begin(); }, [&] { at = next(); })),
            DO(read(
                position == bytes.size()
                    ? "Attempt to access position beyond the end of the ByteBuffer"
                    : nullptr,
                [&] { SAME(static_cast<char>(stream.getByte()), bytes[position]); },
                [&] { next(); })),
            DO(read(
                at ? nullptr : "Attempt to increment the end ByteStreamIterator",
                [&] { advance(it); }, [&] { at = next(); })),
            DO(read(
                !characterAt ? "Attempt to increment the end ByteStreamCharIterator" : nullptr,
                [&] { advance(character); },
                [&] { characterAt = std::exchange(ahead, ahead ? next() : ahead); })),
            DO(read(
                at ? nullptr : "no exception", [&] { character = it; },
                [&] { characterAt = at, ahead = at ? next() : at; })),
            DO(moveStream()), DO(fails = !isOurs && !fails), DO(fails ? void() : readAll()));
        auto const same = [&](Place place, char const* error, auto const& which) {
            SAME(said([&] { SAME(static_cast<char>(*which), bytes[place.value_or(0)]); }),
                 place ? none : error);
        };
        same(at, "Attempt to dereference an invalid ByteStreamIterator", it);
        same(characterAt, "Attempt to dereference an invalid ByteStreamCharIterator", character);
        SAME(it == stream.end(), !at);
        SAME(character == decltype(character)(), !characterAt);
        SAME(it == decltype(it)(it) && character == decltype(character)(character), true);
        SAME(it == other || character == otherCharacter, false);
        SAME(static_cast<bool>(stream), position < bytes.size());
    }
}

// The deleter of a source's former buffer sees the source with its new one.
void assign(Input& input) {
    std::vector<bool> seen;
    ByteBufferByteStreamImpl* inspected = nullptr;
    auto const source = [&](std::string const& bytes) {
        auto* const block = new std::byte[bytes.size() + 1];
        auto const free = [&, block](void*) {
            seen.push_back(inspected != nullptr && *inspected);
            delete[] block;
        };
        std::ranges::copy(std::as_bytes(std::span(bytes)), block);
        return ByteBufferByteStreamImpl(ByteBuffer(ByteBuffer::Block(block, free), bytes.size()));
    };
    std::string const bytes = input.fresh(1 + input.size());
    ByteBufferByteStreamImpl from = source(bytes), to = source(input.fresh(input.size()));
    ByteBufferByteStreamImpl& itself = from;
    inspected = &to;
    bool const isRead = from.getByte() == std::byte(bytes[0]);
    from = std::move(itself);
    to = std::move(from);
    SAME(seen, std::vector<bool>{bytes.size() > 1});
    SAME(isRead && !from && static_cast<bool>(to) == (bytes.size() > 1), true);
    SAME(from.begin() == ByteStreamIterator(), true);
    ByteBufferByteStreamImpl moved(std::move(to));
    SAME(std::string(ByteStreamCharIterator(moved.begin()), {}), bytes.substr(1));
    SAME(said([&] { to.getByte(); }),
         "Attempt to access position beyond the end of the ByteBuffer");
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    Writer writer{input};
    while (input && !input.oneIn(16)) {
        writer.step();
    }
    ByteBuffer const written = writer.out.release();
    SAME(text(written), writer.model.str());
    read(input, written);
    assign(input);
    iterate(input, written.clone());
    return 0;
}
