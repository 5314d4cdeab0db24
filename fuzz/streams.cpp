// SPDX-License-Identifier: Apache-2.0
// What is written through a ByteBufferOStream, a StoppableOStream and a ByteBufferOStreambuf, and
// read through every stream buffer, stream and byte iterator, against the standard library's string
// streams and plain positions.
#include "Input.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <optional>
#include <span>

namespace {

using namespace tests;
using fuzz::Input;
using std::ios;

using fuzz::none, fuzz::said;
std::string const tooFew = "Requested to take more bytes than exist";
constexpr std::size_t longest = std::numeric_limits<std::ptrdiff_t>::max();
std::streamsize size(std::string const& text) { return static_cast<std::streamsize>(text.size()); }
std::string failure(char const* text) { return ios::failure(text).what(); }
std::string const tooManyCommitted = "Requested to commit more bytes than were prepared";
std::string const pastEnd = "Attempt to access position beyond the end of the ByteBuffer";
constexpr auto end = std::char_traits<char>::eof();
using Count = std::streamsize;

// What a move must transfer. A stream that was moved from is like an unused one.
std::string describe(auto& stream) {
    std::ostringstream said;
    said << stream.rdstate() << stream.exceptions() << stream.fill()
         << (stream.ios::rdbuf() == stream.rdbuf()) << stream.rdbuf()->in_avail();
    if constexpr (requires { stream.size(); }) {
        said << ' ' << stream.size();
    }
    return said.str();
}
template <class Stream> void move(Input& input, Stream& stream, Stream const& unused, Stream used) {
    std::string const before = describe(stream), fresh = describe(unused);
    SAME(unused.exceptions(), ios::badbit);
    Stream taken = input.flag() ? Stream(std::move(stream)) : std::move(used = std::move(stream));
    SAME(describe(taken), before);
    SAME(describe(stream), fresh);
    Stream& itself = taken;
    taken = std::move(itself);
    input.flag() ? void(stream = std::move(taken)) : stream.swap(taken);
    SAME(describe(stream), before);
    SAME(describe(taken), fresh);
}

struct Writer {
    Input& input;
    ByteBufferOStream out{input.size()};
    StoppableOStream stoppable{stop_token(), out};
    StoppableOStream nested{stop_token(), stoppable};
    std::ostringstream model{};

    // Room that is enough is used; otherwise it grows to at least 512 and twice what was written.
    void write(std::size_t n) {
        std::string const bytes = input.fresh(n);
        std::ostream* const ways[] = {&out, &stoppable, &nested};
        std::ostream& to = *ways[input.below(3)];
        std::size_t const before = out.size();
        std::span<std::byte> const room = out.prepare(0);
        auto const both = [&](auto act) { act(to), act(model); };
        auto const fill = [&](std::span<std::byte> prepared, auto commit) {
            SAME(prepared.size() >= n, true);
            std::ranges::copy(std::as_bytes(std::span(bytes)), prepared.begin());
            SAME_ERROR(std::out_of_range, tooManyCommitted, commit(prepared.size() + 1));
            commit(n);
            model << bytes;
        };
        input.oneOf(
            DO(both([n](std::ostream& stream) { stream.put(static_cast<char>(n)); })),
            DO(both([&](std::ostream& stream) { stream.write(bytes.data(), size(bytes)); })),
            DO(both([&](std::ostream& stream) { stream << n << ' ' << bytes << std::endl; })),
            DO(fill(out.prepare(n), [&](std::size_t k) { out.commit(k); })),
            DO(fill(out.rdbuf()->prepare(n), [&](std::size_t k) { out.rdbuf()->commit(k); })),
            DO(fill(prepare(to, n).value(), [&](std::size_t k) { commit(to, k); })));
        std::size_t const after = model.view().size();
        if (after - before <= room.size()) {
            SAME(out.prepare(0).data(), room.data() + (after - before));
        } else {
            SAME(after + out.prepare(0).size() >= std::max(2 * before, std::size_t{512}), true);
        }
    }

    // Nobody has that much memory.
    void refuse() {
        std::size_t const left = longest - out.size();
        std::size_t const huge = input.length(left) | std::size_t{1} << 62;
        std::string const error = huge > left ? "vector too long" : std::bad_alloc().what();
        auto const attempt = [&](std::ostream& to, auto act) {
            SAME(said([&] { static_cast<void>(act()); }), error);
            SAME(to.bad(), &to != &model);
            to.clear();
            out.clear();
        };
        attempt(nested, [&] { return prepare(nested, huge); });
        attempt(out, [&] { return out.prepare(huge); });
        attempt(model, [&] { return out.rdbuf()->prepare(huge); });
        stoppable.clear();
        if (huge <= longest) {
            attempt(model, [&] { return out.rdbuf()->sputn("", static_cast<Count>(huge)); });
        } else {
            SAME_ERROR(std::length_error, error, ByteBufferOStreambuf(huge));
        }
        struct : ByteBufferOStreambuf {
            using ByteBufferOStreambuf::overflow;
        } empty;
        SAME(empty.overflow(end) != end && empty.sputn("", -1) == 0 && empty.size() == 0, true);
    }

    // Nothing is written to a stream that isn't good, nor released from it.
    void fail() {
        constexpr ios::iostate states[] = {ios::eofbit, ios::failbit, ios::badbit,
                                           ios::eofbit | ios::failbit};
        ios::iostate const state = states[input.below(4)];
        bool const throws = input.flag();
        out.exceptions(ios::goodbit);
        std::string const part = failure("ByteBufferOStream holds only a part of what was written");
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
        attempt(none, [&](auto& to) {
            to.exceptions(ios::goodbit);
            SAME(!to.flush(), out.fail());
            to.clear();
            SAME_ERROR(std::out_of_range, tooManyCommitted, commit(out, 1));
            SAME_ERROR(ios::failure, part, out.release());
        });
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
    // The very block that it wrote to.
    void release(auto& from) {
        std::byte const* const place = out.prepare(0).data() - out.size();
        std::size_t const before = allocations();
        ByteBuffer const released = from.release();
        SAME(allocations(), before);
        SAME(text(released), model.str());
        SAME(released.empty() || released.data() == place, true);
        model.str({});
    }
    void moveOut() {
        ByteBufferOStream used;
        used << "used";
        used.setstate(ios::failbit);
        move(input, out, ByteBufferOStream(), std::move(used));
    }
    void moveBuffer() const {
        ByteBufferOStreambuf other, &itself = other;
        other.sputn("other", 5);
        other = std::move(*out.rdbuf());
        SAME(out.size(), 0U);
        other = std::move(itself);
        *out.rdbuf() = ByteBufferOStreambuf(std::move(other));
        SAME(other.size(), 0U);
    }

    void step() {
        std::size_t const n = input.size(out.prepare(0).size());
        auto const makeRoom = [&] { discard(out.rdbuf()->prepare(n)); };
        auto const check = [&] { SAME(out.size(), model.view().size()); };
        input.oneOf(DO(write(n)), DO(write(n)), DO(write(n)), DO(write(n)), DO(refuse()),
                    DO(moveOut()), DO(moveBuffer()), DO(stop()), DO(fail()),
                    DO(input.withFaults(makeRoom, check)), DO(release(out)),
                    DO(release(*out.rdbuf())));
        SAME(out.rdstate() | stoppable.rdstate() | nested.rdstate(), ios::goodbit);
        check();
    }
};

// The operations on a stream: with n bytes of room, a byte, and a number for the result.
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
    ByteBufferIStream whole(blocks.adopt(text(content))), borrowing(content);
    NonOwningByteBufferViewIStreambuf viewer(content);
    std::istream ofViewer(&viewer);
    std::istringstream model(text(content));
    ofViewer.exceptions(ios::badbit);
    model.exceptions(ios::badbit);
    std::istream* const in[] = {&whole, &borrowing, &ofViewer};
    auto const unreadOfModel = [&] { return static_cast<std::size_t>(model.rdbuf()->in_avail()); };
    std::vector<std::pair<ByteBuffer, std::string>> parts; // that were taken
    auto const takeSome = [&](std::size_t n) {
        bool const isFree = input.flag(), isOfBuffer = model.fail() || input.flag();
        bool const isFew = n > unreadOfModel();
        std::byte const* const place = whole.rdbuf()->unread().data();
        auto const takeFrom = [&](auto& stream) {
            return isFree ? take(stream, n) : isOfBuffer ? stream.rdbuf()->take(n) : stream.take(n);
        };
        ByteBuffer taken[3];
        std::string const error = isFew && !isFree ? tooFew : none;
        auto const state = model.rdstate();
        auto const takeInto = [&](std::size_t i, auto from) {
            auto const check = [&] {
                in[i]->clear(state);
                SAME(in[i]->rdbuf()->in_avail(), model.rdbuf()->in_avail());
            };
            auto const faulty = [&] { input.withFaults([&] { taken[i] = from(); }, check); };
            SAME(said(faulty), error);
        };
        takeInto(0, [&] { return takeFrom(whole); });
        takeInto(1, [&] { return takeFrom(borrowing); });
        takeInto(2, [&] { return isFree ? take(ofViewer, n) : viewer.take(n); });
        std::string bytes(error == none ? std::min(n, unreadOfModel()) : 0, '\0');
        isFree ? void() : model.clear();
        model.read(bytes.data(), size(bytes));
        bytes.resize(static_cast<std::size_t>(model.gcount()));
        if (!isFree) {
            model.clear(state);
        } else if (isFew && model.good()) {
            model.setstate(ios::failbit | ios::eofbit);
        }
        SAME(!bytes.empty() && taken[0].data() != place, false);
        for (std::size_t i = 0; i < std::size(in); ++i) {
            SAME(text(taken[i]), bytes);
            SAME(in[i]->rdstate(), model.rdstate());
            parts.emplace_back(std::move(taken[i]), bytes);
            in[i]->ignore(0); // the number of bytes read last is the same again
        }
        model.ignore(0);
        if (!bytes.empty()) { // nor can what was read before be put back
            model.str(model.str().substr(model.view().size() - unreadOfModel()));
        }
    };
    auto const moveAll = [&] {
        ByteBufferIStreambuf taken(std::move(*whole.rdbuf())), &itself = taken;
        SAME(whole.rdbuf()->sgetc(), end);
        taken = std::move(itself);
        *whole.rdbuf() = std::move(taken);
        SAME(taken.sgetc(), end);
        NonOwningByteBufferViewIStreambuf same(std::move(viewer)), other{ByteBufferView()};
        SAME(same.in_avail(), viewer.in_avail());
        other = std::move(same);
        viewer = std::move(other);
        for (ByteBufferIStream* const stream : {&whole, &borrowing}) {
            move(input, *stream, ByteBufferIStream(ByteBufferView()),
                 ByteBufferIStream(ByteBuffer(bytes("used"))));
        }
    };
    // Shows and skips what is not read yet, also where that is refused.
    auto const skipSome = [&](std::size_t n) {
        std::size_t const left = unreadOfModel();
        bool const hasFailed = model.fail();
        std::string const tooMany = "Requested to skip more bytes than exist";
        std::string const failed = hasFailed ? failure("ByteBufferIStream has failed") : none;
        for (std::istream* const stream : in) {
            auto const state = stream->rdstate();
            std::optional<ByteBufferView> const shown = unread(*stream);
            SAME(shown.has_value(), !hasFailed);
            SAME(shown ? text(*shown) : "",
                 hasFailed ? "" : model.str().substr(model.view().size() - left));
            SAME_ERROR(std::out_of_range, n > left || (hasFailed && n != 0) ? tooMany : none,
                       skip(*stream, n));
            SAME(stream->rdstate(), state);
        }
        SAME_ERROR(ios::failure, failed, whole.unread());
        SAME_ERROR(ios::failure, failed, whole.take(0));
        SAME(said([&] { borrowing.skip(~std::size_t{0}); }), hasFailed ? failed : tooMany);
        if (!hasFailed && n <= left) {
            model.rdbuf()->pubseekoff(static_cast<Count>(n), ios::cur, ios::in);
        }
    };
    while (input && !input.oneIn(32)) {
        ++fuzz::place.step;
        auto const& [name, does] = acts[input.below(std::size(acts))];
        fuzz::place.operation = name;
        std::size_t const n = input.size(unreadOfModel());
        std::string const expected = act(does, model, n);
        for (std::istream* const stream : in) {
            SAME(act(does, *stream, n), expected);
            for (auto const which : {ios::in, ios::out}) {
                SAME(stream->rdbuf()->pubseekoff(0, ios::beg, which), std::streampos(-1));
            }
        }
        fuzz::place.operation = "skip";
        skipSome(input.length(unreadOfModel()));
        if (input.flag()) {
            model.clear();
            std::ranges::for_each(in, [](std::istream* stream) { stream->clear(); });
        }
        if (input.oneIn(4) && !model.bad()) { // where setting a state would throw
            fuzz::place.operation = "take";
            takeSome(input.length(unreadOfModel()));
        }
        if (input.oneIn(4)) {
            fuzz::place.operation = "move";
            moveAll();
        }
    }
    SAME(blocks.freed, 0);
    whole = ByteBufferIStream(content);
    for (auto const& [part, bytes] : parts) {
        SAME(text(part), bytes);
    }
    parts.clear();
    SAME(blocks.freed, 1);
}

// A source of a user's own, whose next byte may fail.
template <class Base = ByteStreamImpl> struct Source final : Base {
    Source(std::string content, bool const& f, auto&&... base)
        : Base(std::move(base)...), bytes(std::move(content)), fails(f) {}
    ByteStreamIterator begin() override { return ByteStreamIterator(*this); }
    explicit operator bool() const override { return at < bytes.size(); }
    std::byte getByte() override {
        if (at == bytes.size()) {
            throw std::out_of_range(pastEnd);
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
    Place at, characterAt, ahead, unused;
    std::string const atEnd = "Attempt to increment the end ByteStreamIterator";
    std::string const atCharEnd = "Attempt to increment the end ByteStreamCharIterator";
    std::size_t position = 0;
    auto const next = [&] { return position < bytes.size() ? Place(position++) : Place(); };
    // Does something that reads the next byte, if there is one, and notes its place.
    auto const read = [&](Place& place, std::string const& error, auto act) {
        bool const isMine = error == none && fails && position < bytes.size();
        SAME(said(act), isMine ? "mine" : error);
        place = error == none && !isMine ? next() : place;
    };
    auto const advance = [&](auto& which) {
        auto const old = which;
        if (input.flag()) {
            auto const held = which++;
            SAME(*held, *old);
        } else {
            ++which;
        }
    };
    auto const getByte = [&] { SAME(static_cast<char>(stream.getByte()), bytes[position]); };
    auto const convert = [&] {
        character = it;
        characterAt = at;
        ahead = at ? ahead : at;
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
    auto const same = [&](Place place, std::string const& error, auto const& which) {
        SAME(said([&] { SAME(static_cast<char>(*which), bytes[place.value_or(0)]); }),
             place ? none : error);
        SAME(which == std::decay_t<decltype(which)>(), !place);
        SAME(which == std::decay_t<decltype(which)>(which), true);
    };
    while (input) {
        input.oneOf(DO(read(at, none, [&] { it = stream.begin(); })),
                    DO(read(unused, position < bytes.size() ? none : pastEnd, getByte)),
                    DO(read(at, at ? none : atEnd, [&] { advance(it); })),
                    DO(read(ahead, characterAt ? none : atCharEnd,
                            [&] { advance(character), characterAt = ahead; })),
                    DO(at ? read(ahead, none, convert) : convert()), DO(moveStream()),
                    DO(fails = !isOurs && !fails), DO(fails ? void() : readAll()));
        same(at, "Attempt to dereference an invalid ByteStreamIterator", it);
        same(characterAt, "Attempt to dereference an invalid ByteStreamCharIterator", character);
        SAME(it == stream.end(), !at);
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
    SAME(said([&] { to.getByte(); }), pastEnd);
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
