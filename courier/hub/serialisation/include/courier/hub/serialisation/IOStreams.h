// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_IOSTREAMS_H
#define COURIER_HUB_SERIALISATION_IOSTREAMS_H

#include <courier/hub/serialisation/Streams.h>

#include <bedrock/concurrent/threadpool/stop_token.h>

#include <cstddef>
#include <istream>
#include <optional>
#include <ostream>
#include <span>
#include <streambuf>

/// \file
/// Streams for encoders and decoders, ready to use:
///
///     ByteBufferOStream   writes a message into a ByteBuffer
///     ByteBufferIStream   reads a message in place
///     StoppableOStream    passes writes on to another std::ostream until a stop is requested
///     unread(), skip()    give a decoder a block of bytes rather than a stream
///     take()              reads a part of the bytes as a buffer of its own
///     prepare(), commit() give an encoder a block of memory rather than a stream
///
/// None of these types locks: use a stream on one thread at a time. A stop may be requested on any
/// thread.

namespace courier::hub::serialisation {

using bedrock::concurrent::threadpool::stop_token;

/// A std::ostream that writes into a growing block and returns it as a ByteBuffer:
///
///     ByteBufferOStream out;
///     serialiser(out);
///     ByteBuffer message = out.release(); // copies no byte
///
/// Use it for whole messages: it never returns a part of one. Writing throws when memory is
/// exhausted, because exceptions() include badbit from the start, and release() throws when the
/// stream is not good. A routine that stops early throws, too, so release() is not reached. To
/// write through a std::ostream of your own, use ByteBufferOStreambuf.
///
/// Movable and swappable, as std::ostringstream is. A moved-from stream is like a new one. Seeking
/// fails. For the cost, and the spare room of a released block, see ByteBufferOStreambuf.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferOStream final : public std::ostream {
public:
    /// Reserves `reserve` bytes; 0 allocates nothing until the first write. Throws std::bad_alloc,
    /// std::length_error "vector too long" above 2^63 - 1.
    explicit ByteBufferOStream(std::size_t reserve = 0);

    /// Takes over what was written, the state and the formatting. The bytes keep their address.
    ByteBufferOStream(ByteBufferOStream&& other) noexcept;
    ByteBufferOStream& operator=(ByteBufferOStream&& other) noexcept;
    ~ByteBufferOStream() override;

    /// Exchanges everything with the other stream.
    void swap(ByteBufferOStream& other) noexcept;

    /// Returns the bytes written, in external form, without copying them. The stream is then empty
    /// and can be used again. Throws std::ios_base::failure if the stream is not good, and keeps
    /// the bytes; rdbuf()->release() returns what there is. Constant time; allocates nothing.
    [[nodiscard]] ByteBuffer release();

    /// Room for at least n bytes behind those written, for an encoder that writes to memory:
    ///
    ///     std::span<std::byte> const room = out.prepare(largestSize(value));
    ///     out.commit(encode(value, room.data(), room.size()));
    ///
    /// As ByteBufferOStreambuf::prepare(). Throws std::ios_base::failure if the stream is not good.
    /// When it throws, it sets badbit, as a write does.
    [[nodiscard]] std::span<std::byte> prepare(std::size_t n);

    /// Counts the first n bytes of that room as written. Throws std::out_of_range "Requested to
    /// commit more bytes than were prepared" when there are fewer, and std::ios_base::failure if
    /// the stream is not good; nothing is then written.
    void commit(std::size_t n);

    /// The number of bytes written since construction or the last release().
    [[nodiscard]] std::size_t size() const noexcept { return buffer_.size(); }

    /// The stream buffer of this stream.
    [[nodiscard]] ByteBufferOStreambuf*
    rdbuf() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return const_cast<ByteBufferOStreambuf*>(&buffer_);
    }

private:
    void requireGood() const;

    ByteBufferOStreambuf buffer_;
};

/// A std::istream that reads a buffer in place:
///
///     ByteBufferIStream in(std::move(message)); // owned
///     int count = 0;
///     if (!(in >> count)) {
///         throw std::runtime_error("damaged message");
///     }
///
/// Use it to read a whole message. unread().size() is the number of bytes not read yet.
///
/// Movable and swappable, as std::istringstream is. A moved-from stream is like a new one without
/// bytes.
///
/// Reading past the end, or bytes that do not parse, sets failbit, as in every std::istream.
/// exceptions() include badbit from the start, so that an exception of a user's own operator>> is
/// not lost. Putting back before the first byte sets badbit, and so throws. Seeking fails, so
/// tellg() is -1 even on a good stream. Owning a buffer allocates once; borrowing allocates
/// nothing.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferIStream final : public std::istream {
public:
    /// Takes ownership of the buffer. Throws std::bad_alloc; the buffer is then unchanged.
    explicit ByteBufferIStream(ByteBuffer&& buffer);

    /// Borrows the bytes of a buffer, which the caller keeps alive and unchanged.
    explicit ByteBufferIStream(ByteBuffer const& buffer COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// Borrows the bytes: the caller keeps them alive and unchanged. Throws std::invalid_argument
    /// for a null view with a length.
    explicit ByteBufferIStream(ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// Deleted: a constant buffer cannot be moved from, and a temporary cannot be borrowed.
    explicit ByteBufferIStream(ByteBuffer const&&) = delete;

    /// Takes over the bytes, the position, the state and the formatting.
    ByteBufferIStream(ByteBufferIStream&& other) noexcept;
    ByteBufferIStream& operator=(ByteBufferIStream&& other) noexcept;
    ~ByteBufferIStream() override;

    /// Exchanges everything with the other stream.
    void swap(ByteBufferIStream& other) noexcept;

    /// A view of the bytes not read yet, in place. Does not read them. Valid while the bytes are.
    /// Throws std::ios_base::failure if the stream has failed (fail()), because its position is
    /// then meaningless; rdbuf()->unread() returns the bytes in any state.
    [[nodiscard]] ByteBufferView unread() const COURIER_HUB_SERIALISATION_LIFETIMEBOUND;

    /// Marks the next n bytes as read. Throws std::out_of_range "Requested to skip more bytes than
    /// exist" when n is above unread().size(), and as unread() does; the position is then
    /// unchanged. Changes neither the state nor gcount().
    void skip(std::size_t n);

    /// Reads the next n bytes as a buffer of their own: in place if the stream owns its bytes, a
    /// copy if it borrows them. As ByteBufferIStreambuf::take(), and throws as unread() does.
    /// Changes neither the state nor gcount().
    [[nodiscard]] ByteBuffer take(std::size_t n);

    /// The stream buffer of this stream.
    [[nodiscard]] ByteBufferIStreambuf*
    rdbuf() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return const_cast<ByteBufferIStreambuf*>(&buffer_);
    }

private:
    ByteBufferIStreambuf buffer_;
};

/// A view of the bytes that `in` has not read yet, in place, for a decoder that takes a block.
/// std::nullopt if `in` has failed (`!in`), or if its stream buffer is not exactly one of the two
/// of Streams.h: a derived class may provide further bytes. Then read `in` as any std::istream:
///
///     if (std::optional<ByteBufferView> const block = unread(in)) {
///         std::size_t const used = parse(block->data(), block->size());
///         skip(in, used);
///     } else {
///         parse(in);
///     }
///
/// Does not read the bytes. The view is valid while they are. Constant time.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT std::optional<ByteBufferView>
unread(std::istream& in);

/// Marks the next n bytes of unread(in) as read. Throws std::out_of_range "Requested to skip more
/// bytes than exist" when there are fewer, or when unread(in) is std::nullopt and n is not 0; the
/// position is then unchanged. Changes neither the state nor gcount(). Use it rather than
/// in.ignore(n), which may set eofbit after the last byte and so make the next read of an empty
/// message fail.
COURIER_HUB_SERIALISATION_EXPORT void skip(std::istream& in, std::size_t n);

/// Reads the next n bytes as a buffer of their own, which an element may keep:
///
///     Image read(std::istream& in) { return Image(take(in, readLength(in))); }
///
/// In place, and shared with the stream as by ByteBuffer::splitFront(), if the stream buffer is
/// exactly a ByteBufferIStreambuf that owns its bytes; otherwise a copy. If there are fewer, sets
/// failbit and eofbit, as std::istream::read() does, and returns those that there are; n may be a
/// length that hostile bytes claim, as memory is taken only for bytes that there are. On a stream
/// that is not good it sets failbit and returns none. gcount() is then unspecified.
///
/// Throws std::bad_alloc, with badbit set if the stream buffer is another one, because what was
/// read is lost; and what the stream's exceptions() demand.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT ByteBuffer take(std::istream& in, std::size_t n);

/// A std::ostream that passes writes on to another one, the target, until a stop is requested. An
/// encoder that writes to it needs no checks of its own:
///
///     void write(Document const& document, std::ostream& out, stop_token const& token) {
///         StoppableOStream stoppable(token, out);
///         stoppable << document;
///     }
///
/// It owns nothing: the target must outlive it. Not movable.
///
/// It passes each write on at once, in pieces of at most 64 KiB, and polls the token before each
/// piece. exceptions() include badbit from the start, so that exceptions reach the encoder's
/// caller:
///
/// - std::system_error with std::errc::operation_canceled on a stop.
/// - What the target's stream buffer throws, such as std::bad_alloc.
/// - std::ios_base::failure if the target is not good, or its stream buffer accepts fewer bytes.
///
/// What was written before stays written. The exception also sets the target's badbit, so that a
/// part is not taken for the whole even if the encoder swallows the exception. If the encoder sets
/// failbit or badbit of this stream itself, the destructor sets the target's badbit.
///
/// Nothing is buffered here; flush() flushes the target. Writes reach the target's stream buffer
/// directly, so the target's tie() and unitbuf have no effect. Formatting and locale are those of a
/// new stream. Seeking fails.
///
/// prepare() and commit() reach through it to the target's block.
///
/// Allocates nothing. A write costs one virtual call and one atomic load more than without it,
/// which matters only to an encoder that writes single characters.
class COURIER_HUB_SERIALISATION_EXPORT StoppableOStream final : public std::ostream {
public:
    /// An empty token never stops.
    StoppableOStream(stop_token token,
                     std::ostream& target COURIER_HUB_SERIALISATION_LIFETIMEBOUND);
    ~StoppableOStream() override;

    /// Throws std::system_error with std::errc::operation_canceled if a stop was requested. An
    /// encoder that reads much and writes little should call it for each piece that it reads. Does
    /// not change the target.
    void throwIfStopped() const { buffer_.throwIfStopped(); }

private:
    friend std::optional<std::span<std::byte>> prepare(std::ostream& out, std::size_t n);
    friend void commit(std::ostream& out, std::size_t n);

    // The stream buffer that `out` writes to in the end, if it is exactly a ByteBufferOStreambuf.
    // Polls the tokens on the way.
    static ByteBufferOStreambuf* sinkOf(std::ostream& out);

    class COURIER_HUB_SERIALISATION_EXPORT Buffer : public std::streambuf {
    public:
        Buffer(stop_token token, std::ostream& target);
        ~Buffer() override;

        void failTarget() noexcept;
        [[nodiscard]] ByteBufferOStreambuf* sink();
        void throwIfStopped() const {
            if (token_.stop_requested()) {
                throwStopped();
            }
        }

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(char const* s, std::streamsize n) override;
        int sync() override;

    private:
        [[noreturn]] static void throwStopped();
        template <class Write> void passOn(Write write);

        stop_token token_;
        std::ostream& target_;
    };

    Buffer buffer_;
};

/// Room for at least n bytes behind those that `out` has written, for an encoder that writes to
/// memory. std::nullopt if `out` is not good, or if its stream buffer is not exactly a
/// ByteBufferOStreambuf: then write to `out` as to any std::ostream. Reaches through a
/// StoppableOStream to its target.
///
///     if (auto const room = prepare(out, value.size())) {
///         value.encode(room->data());
///         commit(out, value.size());
///     } else {
///         out << value;
///     }
///
/// The bytes are as for ByteBufferOStreambuf::prepare(). Throws std::bad_alloc, std::length_error
/// "vector too long", and std::system_error with std::errc::operation_canceled if a stop was
/// requested; in each case it sets badbit, which a StoppableOStream passes on to its target, at the
/// latest when it is destroyed.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT std::optional<std::span<std::byte>>
prepare(std::ostream& out, std::size_t n);

/// Counts the first n bytes of that room as written. Fails as prepare() does if a stop was
/// requested meanwhile. Throws std::out_of_range "Requested to commit more bytes than were
/// prepared" when there are fewer, or when prepare(out, n) would be std::nullopt and n is not 0.
/// Nothing is written when it fails.
COURIER_HUB_SERIALISATION_EXPORT void commit(std::ostream& out, std::size_t n);

} // namespace courier::hub::serialisation

#endif
