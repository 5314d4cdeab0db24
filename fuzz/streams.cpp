// SPDX-License-Identifier: Apache-2.0
// What a ByteBufferOStream writes, with and without a StoppableOStream in front of it, read through
// both read stream buffers, a ByteBufferIStream and the byte iterators, against the standard
// library's string streams and a plain position.
#include "../tests/Support.h"
#include "Input.h"

#include <courier/hub/serialisation/IOStreams.h>

#include <optional>

namespace {

using namespace tests;
using fuzz::Input;

std::streamsize size(std::string const& text) { return static_cast<std::streamsize>(text.size()); }

void move(ByteBufferOStream& out) {
    ByteBufferOStream taken(std::move(out));
    out << 'x';
    SAME(text(out.release()), "x");
    out = std::move(taken);
}
void stop(ByteBufferOStream& out) {
    stop_source source;
    StoppableOStream stopped(source.get_token(), out);
    source.request_stop();
    SAME(messageOf<std::system_error>([&] { stopped << 1; }),
         messageOf<std::system_error>([&] { stopped.throwIfStopped(); }));
    SAME(out.bad(), true);
    stopped.clear();
    out.clear();
}
void fail(ByteBufferOStream& out) {
    out.setstate(std::ios::failbit);
    std::ios::failure const part("ByteBufferOStream holds only a part of what was written");
    SAME(messageOf<std::ios::failure>([&] { discard(out.release()); }), part.what());
    out.clear();
}

ByteBuffer write(Input& input) {
    ByteBufferOStream out(input.length());
    StoppableOStream stoppable(stop_token(), out);
    std::ostringstream model;
    for (bool more = true; more; more = input && !input.oneIn(32)) {
        std::size_t const n = input.length();
        std::string const bytes = input.fresh(n);
        bool const direct = input.flag();
        auto const both = [&](auto put) {
            put(direct ? static_cast<std::ostream&>(out) : stoppable), put(model);
        };
        input.oneOf(DO(both([&](std::ostream& to) { to.put(static_cast<char>(n)); })),
                    DO(both([&](std::ostream& to) { to.write(bytes.data(), size(bytes)); })),
                    DO(both([&](std::ostream& to) { to << n << ' ' << bytes << std::endl; })),
                    DO(move(out)), DO(stop(out)), DO(fail(out)),
                    DO(SAME(text(out.release()), model.str()); model.str({})));
        SAME(out.rdstate(), std::ios::goodbit);
        SAME(stoppable.rdstate(), std::ios::goodbit);
        SAME(out.size(), model.str().size());
    }
    ByteBuffer written = out.release();
    SAME(text(written), model.str());
    return written;
}

// The operations on a stream: with n bytes of room, a byte, and a number for the result.
using Count = std::streamsize;
using Act = Count (*)(std::istream& in, std::string& got, char byte);
// Skips n bytes if it can, and returns whether it did. The model has a foreign stream buffer.
Count skipped(std::istream& in, std::size_t n) {
    auto const most = in ? static_cast<std::size_t>(in.rdbuf()->in_avail()) : 0;
    if (dynamic_cast<std::istringstream*>(&in) == nullptr) {
        std::string const said = messageOf<std::out_of_range>([&] { skip(in, n); });
        SAME(said, n <= most ? "no exception" : "Requested to skip more bytes than exist");
    } else if (n <= most) {
        in.rdbuf()->pubseekoff(static_cast<Count>(n), std::ios::cur, std::ios::in);
    }
    return Count(n <= most);
}
#define ACT(...)                                                                                   \
    std::pair<char const*, Act>(#__VA_ARGS__,                                                      \
                                [](std::istream& in, [[maybe_unused]] auto& got,                   \
                                   [[maybe_unused]] char byte) { return Count(__VA_ARGS__); })
constexpr std::pair<char const*, Act> acts[] = {
    ACT(!in.read(got.data(), size(got))),
    ACT(in.readsome(got.data(), size(got))),
    ACT(in.rdbuf()->sgetn(got.data(), size(got))),
    ACT(!std::getline(in, got, byte)),
    ACT(!(in >> got)),
    ACT(!in.ignore(size(got), std::uint8_t(byte))),
    ACT(in.get()),
    ACT(in.peek()),
    ACT(!in.unget()),
    ACT(!in.putback(byte)),
    ACT(in.rdbuf()->sgetc()),
    ACT(in.rdbuf()->sbumpc()),
    ACT(in.rdbuf()->snextc()),
    ACT(in.rdbuf()->sungetc()),
    ACT(in.rdbuf()->sputbackc(byte)),
    ACT(in.rdbuf()->sputc(byte)),
    ACT(skipped(in, got.size())),
};

std::string act(Act act, std::istream& in, std::size_t n) {
    std::string got(n, '-');
    std::string said;
    try {
        said = std::to_string(act(in, got, static_cast<char>(n)));
    } catch (std::ios::failure const&) {
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
    NonOwningByteBufferViewIStreambuf viewer(content);
    std::istringstream model(text(content));
    std::istream ofOwner(&owner), ofViewer(&viewer);
    ByteBufferIStream whole(blocks.adopt(text(content))), borrower(content);
    std::istream* const in[] = {&ofOwner, &ofViewer, &whole, &borrower};
    for (std::istream* const stream : {in[0], in[1], static_cast<std::istream*>(&model)}) {
        stream->exceptions(std::ios::badbit);
    }
    while (input && !input.oneIn(32)) {
        auto const& [name, does] = acts[input.below(std::size(acts))];
        fuzz::place.operation = name;
        std::size_t const n = input.length();
        bool const clear = input.flag();
        std::string const expected = act(does, model, n);
        std::string_view rest = model.view();
        rest.remove_prefix(rest.size() - static_cast<std::size_t>(model.rdbuf()->in_avail()));
        for (std::istream* const stream : in) {
            SAME(act(does, *stream, n), expected);
            SAME(stream->rdbuf()->pubseekoff(0, std::ios::beg), std::streampos(-1));
            std::optional<ByteBufferView> const shown = unread(*stream);
            SAME(shown.has_value(), !stream->fail());
            SAME(shown ? text(*shown) : rest, rest);
            if (clear) {
                stream->clear();
            }
        }
        if (clear) {
            model.clear();
        }
        if (input.flag()) {
            fuzz::place.operation = "move";
            ByteBufferIStreambuf taken(std::move(owner));
            SAME(owner.sgetc(), std::char_traits<char>::eof());
            owner = std::move(taken);
            SAME(taken.sgetc(), std::char_traits<char>::eof());
            NonOwningByteBufferViewIStreambuf same(std::move(viewer));
            SAME(same.sgetc(), viewer.sgetc());
            SAME(same.in_avail(), viewer.in_avail());
            viewer = std::move(same);
            ByteBufferIStream moved(std::move(whole));
            SAME(whole.unread().size(), 0U);
            whole = std::move(moved);
        }
    }
    SAME(blocks.freed, 0);
    owner = ByteBufferIStreambuf(content);
    whole = ByteBufferIStream(content);
    SAME(blocks.freed, 2);
}

// The position of a byte iterator is that of its byte, and of a character iterator also that of the
// next one; at the end there is none.
void iterate(Input& input, ByteBuffer source) {
    using Place = std::optional<std::size_t>;
    std::string const bytes = text(source);
    ByteStream stream(std::make_unique<ByteBufferByteStreamImpl>(std::move(source)));
    ByteStreamIterator it;
    ByteStreamCharIterator character;
    Place at, characterAt, ahead;
    std::size_t position = 0;
    auto const next = [&] { return position < bytes.size() ? Place(position++) : Place(); };
    auto const same = [&](Place place, std::string const& error, auto action) {
        if (place) {
            SAME(static_cast<char>(action()), bytes[*place]);
        } else {
            SAME(messageOf<std::out_of_range>(action), "Attempt to " + error);
        }
    };
    while (input) {
        auto const advance = [post = input.flag()](auto& which) {
            auto const old = which;
            return post ? *which++ : (++which, *old);
        };
        auto const getByte = [&] {
            same(next(), "access position beyond the end of the ByteBuffer",
                 [&] { return stream.getByte(); });
        };
        auto const advanceByte = [&] {
            same(at, "increment the end ByteStreamIterator", [&] { return advance(it); });
            at = at ? next() : at;
        };
        auto const advanceCharacter = [&] {
            same(characterAt, "increment the end ByteStreamCharIterator",
                 [&] { return advance(character); });
            characterAt = std::exchange(ahead, ahead ? next() : ahead);
        };
        auto const moveStream = [&] {
            ByteStream taken(std::move(stream));
            SAME(static_cast<bool>(stream), false);
            stream = std::move(taken);
        };
        input.oneOf(DO(it = stream.begin(), at = next()), DO(getByte()), DO(advanceByte()),
                    DO(advanceCharacter()), DO(moveStream()),
                    DO(character = it, characterAt = at, ahead = at ? next() : at));
        same(at, "dereference an invalid ByteStreamIterator", [&] { return *it; });
        same(characterAt, "dereference an invalid ByteStreamCharIterator",
             [&] { return *character; });
        SAME(it == stream.end(), !at);
        SAME(character == decltype(character)(), !characterAt);
        SAME(static_cast<bool>(stream), position < bytes.size());
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    Input input(data, size);
    ByteBuffer written = write(input);
    read(input, written);
    iterate(input, std::move(written));
    return 0;
}
