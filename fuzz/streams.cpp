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
using fuzz::require;

std::streamsize size(std::string const& text) { return static_cast<std::streamsize>(text.size()); }

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
        input.oneOf([&] { both([&](std::ostream& to) { to.put(static_cast<char>(n)); }); },
                    [&] { both([&](std::ostream& to) { to.write(bytes.data(), size(bytes)); }); },
                    [&] { both([&](std::ostream& to) { to << n << ' ' << bytes << std::endl; }); },
                    [&] {
                        ByteBufferOStream taken(std::move(out));
                        require(out.size() == 0 && out.put('x').good() && out.size() == 1);
                        out = std::move(taken);
                    },
                    [&] {
                        stop_source source;
                        StoppableOStream stopped(source.get_token(), out);
                        source.request_stop();
                        require(messageOf<std::system_error>([&] { stopped << n; }) ==
                                messageOf<std::system_error>([&] { stopped.throwIfStopped(); }));
                        require(out.bad());
                        stopped.clear();
                        out.clear();
                    },
                    [&] {
                        out.setstate(std::ios::failbit);
                        require(messageOf<std::ios::failure>([&] { discard(out.release()); }) ==
                                std::ios::failure("ByteBufferOStream holds only a part of what "
                                                  "was written")
                                    .what());
                        out.clear();
                    },
                    [&] {
                        require(text(out.release()) == model.str());
                        model.str({});
                    });
        require(out.good() && stoppable.good() && out.size() == model.str().size());
    }
    ByteBuffer written = out.release();
    require(text(written) == model.str());
    return written;
}

// What can be done to a stream: with n bytes of room, a byte, and a number that says what came of
// it.
using Count = std::streamsize;
using Act = Count (*)(std::istream& in, std::string& got, char byte);
// Whether n bytes can be skipped, which is then done. The model has a foreign stream buffer.
Count skipped(std::istream& in, std::size_t n) {
    auto const most = in ? static_cast<std::size_t>(in.rdbuf()->in_avail()) : 0;
    if (dynamic_cast<std::istringstream*>(&in) == nullptr) {
        std::string const said = messageOf<std::out_of_range>([&] { skip(in, n); });
        require(said == (n <= most ? "no exception" : "Requested to skip more bytes than exist"));
    } else if (n <= most) {
        in.rdbuf()->pubseekoff(static_cast<Count>(n), std::ios::cur, std::ios::in);
    }
    return Count(n <= most);
}
constexpr Act acts[] = {
    [](auto& in, auto& got, char) { return Count(!in.read(got.data(), size(got))); },
    [](auto& in, auto& got, char) { return in.readsome(got.data(), size(got)); },
    [](auto& in, auto& got, char) { return in.rdbuf()->sgetn(got.data(), size(got)); },
    [](auto& in, auto& got, char byte) { return Count(!std::getline(in, got, byte)); },
    [](auto& in, auto& got, char) { return Count(!(in >> got)); },
    [](auto& in, auto& got, char c) { return Count(!in.ignore(size(got), std::uint8_t(c))); },
    [](auto& in, auto&, char) { return Count(in.get()); },
    [](auto& in, auto&, char) { return Count(in.peek()); },
    [](auto& in, auto&, char) { return Count(!in.unget()); },
    [](auto& in, auto&, char byte) { return Count(!in.putback(byte)); },
    [](auto& in, auto&, char) { return Count(in.rdbuf()->sgetc()); },
    [](auto& in, auto&, char) { return Count(in.rdbuf()->sbumpc()); },
    [](auto& in, auto&, char) { return Count(in.rdbuf()->snextc()); },
    [](auto& in, auto&, char) { return Count(in.rdbuf()->sungetc()); },
    [](auto& in, auto&, char byte) { return Count(in.rdbuf()->sputbackc(byte)); },
    [](auto& in, auto&, char byte) { return Count(in.rdbuf()->sputc(byte)); },
    [](auto& in, auto& got, char) { return skipped(in, got.size()); },
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
        auto const& does = acts[input.below(std::size(acts))];
        std::size_t const n = input.length();
        bool const clear = input.flag();
        std::string const expected = act(does, model, n);
        std::string_view rest = model.view();
        rest.remove_prefix(rest.size() - static_cast<std::size_t>(model.rdbuf()->in_avail()));
        for (std::istream* const stream : in) {
            require(act(does, *stream, n) == expected);
            require(stream->rdbuf()->pubseekoff(0, std::ios::beg) == std::streampos(-1));
            std::optional<ByteBufferView> const shown = unread(*stream);
            require(shown.has_value() == !stream->fail());
            require(!shown || *shown == ByteBufferView(rest));
            if (clear) {
                stream->clear();
            }
        }
        if (clear) {
            model.clear();
        }
        if (input.flag()) {
            ByteBufferIStreambuf taken(std::move(owner));
            require(owner.sgetc() == std::char_traits<char>::eof());
            owner = std::move(taken);
            require(taken.sgetc() == std::char_traits<char>::eof());
            NonOwningByteBufferViewIStreambuf same(std::move(viewer));
            require(same.sgetc() == viewer.sgetc() && same.in_avail() == viewer.in_avail());
            viewer = std::move(same);
            ByteBufferIStream moved(std::move(whole));
            require(whole.unread().empty());
            whole = std::move(moved);
        }
    }
    require(blocks.freed == 0);
    owner = ByteBufferIStreambuf(content);
    whole = ByteBufferIStream(content);
    require(blocks.freed == 2);
}

// An iterator has the place of the byte that it designates, a character iterator also that of the
// one behind it; at the end there is none.
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
            require(static_cast<char>(action()) == bytes[*place]);
        } else {
            require(messageOf<std::out_of_range>(action) == "Attempt to " + error);
        }
    };
    while (input) {
        auto const advance = [post = input.flag()](auto& which) {
            auto const old = which;
            return post ? *which++ : (++which, *old);
        };
        input.oneOf(
            [&] { it = stream.begin(), at = next(); },
            [&] {
                same(next(), "access position beyond the end of the ByteBuffer",
                     [&] { return stream.getByte(); });
            },
            [&] {
                same(at, "increment the end ByteStreamIterator", [&] { return advance(it); });
                at = at ? next() : at;
            },
            [&] {
                character = ByteStreamCharIterator(it), characterAt = at, ahead = at ? next() : at;
            },
            [&] {
                same(characterAt, "increment the end ByteStreamCharIterator",
                     [&] { return advance(character); });
                characterAt = std::exchange(ahead, ahead ? next() : ahead);
            });
        same(at, "dereference an invalid ByteStreamIterator", [&] { return *it; });
        same(characterAt, "dereference an invalid ByteStreamCharIterator",
             [&] { return *character; });
        require((it == stream.end()) == !at &&
                (character == decltype(character)()) == !characterAt);
        require(static_cast<bool>(stream) == (position < bytes.size()));
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
