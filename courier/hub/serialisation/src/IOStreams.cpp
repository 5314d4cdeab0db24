// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/IOStreams.h>

#include <algorithm>
#include <ios>
#include <memory>
#include <system_error>
#include <typeinfo>
#include <utility>

namespace courier::hub::serialisation {

namespace {

// Sets badbit without replacing the exception in flight by std::ios_base::failure.
void setBad(std::ios& stream) noexcept {
    try {
        stream.setstate(std::ios_base::badbit);
    } catch (std::ios_base::failure const&) {
        // Thrown if exceptions() include badbit. The caller gets the first cause.
    }
}

// Sets badbit if the work throws, as every write does.
template <class Work> auto orSetBad(std::ios& stream, Work work) {
    try {
        return work();
    } catch (...) {
        setBad(stream);
        throw;
    }
}

} // namespace

// Each constructor passes a null stream buffer to its base, because its own is not constructed yet.

ByteBufferOStream::ByteBufferOStream(std::size_t reserve)
    : std::ostream(nullptr), buffer_(reserve) {
    std::ostream::rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

ByteBufferOStream::ByteBufferOStream(ByteBufferOStream&& other) noexcept : ByteBufferOStream() {
    swap(other);
}

ByteBufferOStream& ByteBufferOStream::operator=(ByteBufferOStream&& other) noexcept {
    ByteBufferOStream taken(std::move(other)); // `other` may be this stream
    swap(taken);
    return *this;
}

ByteBufferOStream::~ByteBufferOStream() = default;

void ByteBufferOStream::swap(ByteBufferOStream& other) noexcept {
    std::ostream::swap(other); // all but the stream buffer
    std::swap(buffer_, other.buffer_);
}

void ByteBufferOStream::requireGood() const {
    if (!good()) {
        throw std::ios_base::failure("ByteBufferOStream holds only a part of what was written");
    }
}

ByteBuffer ByteBufferOStream::release() {
    requireGood();
    return buffer_.release();
}

std::span<std::byte> ByteBufferOStream::prepare(std::size_t n) {
    requireGood();
    return orSetBad(*this, [&] { return buffer_.prepare(n); });
}

void ByteBufferOStream::commit(std::size_t n) {
    requireGood();
    buffer_.commit(n);
}

ByteBufferIStream::ByteBufferIStream(ByteBuffer&& buffer)
    : std::istream(nullptr), buffer_(std::make_unique<ByteBuffer>(std::move(buffer))) {
    std::istream::rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

ByteBufferIStream::ByteBufferIStream(ByteBuffer const& buffer)
    : ByteBufferIStream(ByteBufferView(buffer)) {}

ByteBufferIStream::ByteBufferIStream(ByteBufferView view) : std::istream(nullptr), buffer_(view) {
    std::istream::rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

ByteBufferIStream::ByteBufferIStream(ByteBufferIStream&& other) noexcept
    : ByteBufferIStream(ByteBufferView()) {
    swap(other);
}

ByteBufferIStream& ByteBufferIStream::operator=(ByteBufferIStream&& other) noexcept {
    ByteBufferIStream taken(std::move(other)); // `other` may be this stream
    swap(taken);
    return *this;
}

ByteBufferIStream::~ByteBufferIStream() = default;

void ByteBufferIStream::swap(ByteBufferIStream& other) noexcept {
    std::istream::swap(other); // all but the stream buffer
    std::swap(buffer_, other.buffer_);
}

ByteBufferView ByteBufferIStream::unread() const {
    if (fail()) {
        throw std::ios_base::failure("ByteBufferIStream has failed");
    }
    return buffer_.unread();
}

void ByteBufferIStream::skip(std::size_t n) {
    static_cast<void>(unread());
    buffer_.skip(n);
}

ByteBuffer ByteBufferIStream::take(std::size_t n) {
    static_cast<void>(unread());
    return buffer_.take(n);
}

namespace {

// A class derived from one of these may provide further bytes, so the exact types are compared.
detail::ReadOnlyStreambuf* readOnlyStreambuf(std::istream& in) {
    std::streambuf* const source = in.rdbuf();
    bool const isWhole = source != nullptr && !in.fail() &&
                         (typeid(*source) == typeid(ByteBufferIStreambuf) ||
                          typeid(*source) == typeid(NonOwningByteBufferViewIStreambuf));
    return isWhole ? static_cast<detail::ReadOnlyStreambuf*>(source) : nullptr;
}

} // namespace

std::optional<ByteBufferView> unread(std::istream& in) {
    detail::ReadOnlyStreambuf const* const source = readOnlyStreambuf(in);
    return source != nullptr ? std::optional(source->unread()) : std::nullopt;
}

void skip(std::istream& in, std::size_t n) {
    if (detail::ReadOnlyStreambuf* const source = readOnlyStreambuf(in)) {
        source->skip(n);
    } else if (n != 0) {
        detail::throwOutOfRange("Requested to skip more bytes than exist");
    }
}

ByteBuffer take(std::istream& in, std::size_t n) {
    std::istream::sentry const ready(in, true);
    if (!ready) {
        return ByteBuffer();
    }
    if (detail::ReadOnlyStreambuf* const source = readOnlyStreambuf(in)) {
        std::size_t const count = std::min(n, source->unread().size());
        auto* const owner = dynamic_cast<ByteBufferIStreambuf*>(source);
        ByteBuffer taken =
            owner != nullptr ? owner->take(count)
                             : static_cast<NonOwningByteBufferViewIStreambuf*>(source)->take(count);
        if (count < n) {
            in.setstate(std::ios_base::eofbit | std::ios_base::failbit);
        }
        return taken;
    }
    ByteBufferOStreambuf taken; // grows with the bytes that there are: n is only what is asked for
    while (taken.size() < n && in) {
        constexpr std::size_t firstPiece = 65536;
        std::size_t const left = n - taken.size();
        auto const room = orSetBad(in, [&] { return taken.prepare(std::min(left, firstPiece)); });
        in.read(reinterpret_cast<char*>(room.data()),
                static_cast<std::streamsize>(std::min(left, room.size())));
        taken.commit(static_cast<std::size_t>(in.gcount()));
    }
    return taken.release();
}

StoppableOStream::StoppableOStream(stop_token token, std::ostream& target)
    : std::ostream(nullptr), buffer_(std::move(token), target) {
    rdbuf(&buffer_);
    exceptions(std::ios_base::badbit);
}

StoppableOStream::~StoppableOStream() {
    if (fail()) { // the encoder may have set it
        buffer_.failTarget();
    }
}

StoppableOStream::Buffer::Buffer(stop_token token, std::ostream& target)
    : token_(std::move(token)), target_(target) {}

StoppableOStream::Buffer::~Buffer() = default;

void StoppableOStream::Buffer::failTarget() noexcept { setBad(target_); }

void StoppableOStream::Buffer::throwStopped() {
    throw std::system_error(std::make_error_code(std::errc::operation_canceled));
}

// Writes to the target's stream buffer rather than to the target: std::ostream doubles the cost of
// a short write and swallows what the stream buffer throws.
template <class Write> void StoppableOStream::Buffer::passOn(Write write) {
    try {
        throwIfStopped();
        if (!target_.good() || !write(*target_.rdbuf())) {
            throw std::ios_base::failure("The target of a StoppableOStream takes no more bytes");
        }
    } catch (...) {
        failTarget();
        throw;
    }
}

StoppableOStream::Buffer::int_type StoppableOStream::Buffer::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        char const character = traits_type::to_char_type(c);
        passOn([character](std::streambuf& to) {
            return !traits_type::eq_int_type(to.sputc(character), traits_type::eof());
        });
    }
    return traits_type::not_eof(c);
}

std::streamsize StoppableOStream::Buffer::xsputn(char const* s, std::streamsize n) {
    if (n <= 0) {
        return 0;
    }
    constexpr std::streamsize largestPiece = 65536;
    std::streamsize left = n;
    for (; left > largestPiece; left -= largestPiece, s += largestPiece) {
        passOn([s](auto& to) { return to.sputn(s, largestPiece) == largestPiece; });
    }
    passOn([s, left](auto& to) { return to.sputn(s, left) == left; });
    return n;
}

int StoppableOStream::Buffer::sync() { return target_.flush() ? 0 : -1; }

ByteBufferOStreambuf* StoppableOStream::sinkOf(std::ostream& out) {
    if (!out.good()) {
        return nullptr;
    }
    std::streambuf& to = *out.rdbuf();
    if (typeid(to) == typeid(Buffer)) {
        return static_cast<Buffer&>(to).sink();
    }
    return typeid(to) == typeid(ByteBufferOStreambuf) ? static_cast<ByteBufferOStreambuf*>(&to)
                                                      : nullptr;
}

ByteBufferOStreambuf* StoppableOStream::Buffer::sink() {
    ByteBufferOStreambuf* const found = sinkOf(target_);
    if (found != nullptr) { // otherwise the write that follows polls
        orSetBad(target_, [this] { throwIfStopped(); });
    }
    return found;
}

std::optional<std::span<std::byte>> prepare(std::ostream& out, std::size_t n) {
    return orSetBad(out, [&] {
        ByteBufferOStreambuf* const sink = StoppableOStream::sinkOf(out);
        return sink != nullptr ? std::optional(sink->prepare(n)) : std::nullopt;
    });
}

void commit(std::ostream& out, std::size_t n) {
    ByteBufferOStreambuf* const sink = orSetBad(out, [&] { return StoppableOStream::sinkOf(out); });
    if (sink != nullptr) {
        sink->commit(n);
    } else if (n != 0) {
        detail::throwOutOfRange("Requested to commit more bytes than were prepared");
    }
}

} // namespace courier::hub::serialisation
