// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_IOSTREAMS_H
#define COURIER_HUB_SERIALISATION_IOSTREAMS_H

#include <courier/hub/serialisation/Streams.h>

#include <bedrock/concurrent/threadpool/stop_token.h>

#include <cstddef>
#include <istream>
#include <optional>
#include <ostream>
#include <streambuf>

// Streams for encoders and decoders, ready to use:
//
//   ByteBufferOStream   writes a message into a ByteBuffer
//   ByteBufferIStream   reads a message in place
//   StoppableOStream    in front of another std::ostream: a stop request ends the write
//   unread(), skip()    for a decoder that takes a block of bytes rather than a stream
//
// None of these types locks: a stream belongs to one thread at a time. A stop may be requested on
// any thread.

namespace courier::hub::serialisation {

using bedrock::concurrent::threadpool::stop_token;

/// A std::ostream that writes into a growing block and returns it as a ByteBuffer:
///
///     ByteBufferOStream out;
///     serialiser(out);
///     ByteBuffer message = out.release(); // copies no byte
///
/// A part is never taken for the whole. Writing throws when memory runs out, because exceptions()
/// include badbit from the start, and release() throws when the stream is not good. A routine that
/// stops early throws, too, so that release() is not reached. To write through a std::ostream of
/// your own, use ByteBufferOStreambuf.
///
/// Movable and swappable, as std::ostringstream is. A moved-from stream is like a new one. Seeking
/// fails. Costs what a ByteBufferOStreambuf costs; see there for the spare room of a released
/// block.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferOStream final : public std::ostream {
public:
    /// Reserves `reserve` bytes; 0 allocates nothing until the first write. Throws std::bad_alloc,
    /// std::length_error "vector too long" above 2^63 - 1.
    explicit ByteBufferOStream(std::size_t reserve = 0);

    /// Takes over what was written, the state and the formatting; the bytes keep their address.
    ByteBufferOStream(ByteBufferOStream&& other) noexcept;
    ByteBufferOStream& operator=(ByteBufferOStream&& other) noexcept;
    ~ByteBufferOStream() override;

    /// Exchanges everything with the other stream.
    void swap(ByteBufferOStream& other) noexcept;

    /// The bytes written, in external form, in the block that they were written to; the stream is
    /// then empty and can be used again. Constant time, allocates nothing. Throws
    /// std::ios_base::failure if the stream is not good, whatever the reason, and keeps the bytes:
    /// rdbuf()->release() returns what there is.
    [[nodiscard]] ByteBuffer release();

    /// The number of bytes written since construction or the last release().
    [[nodiscard]] std::size_t size() const noexcept { return buffer_.size(); }

    /// The stream buffer of this stream.
    [[nodiscard]] ByteBufferOStreambuf*
    rdbuf() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return const_cast<ByteBufferOStreambuf*>(&buffer_);
    }

private:
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
/// Reading past the end, or bytes that do not fit, sets failbit, as in every std::istream.
/// exceptions() include badbit from the start, so that what a user's own operator>> throws is not
/// lost; putting back before the first byte sets badbit, too, and throws. unread().size() is the
/// number of bytes not read yet. Seeking fails, so tellg() is -1 on a good stream.
///
/// Movable and swappable, as std::istringstream is. A moved-from stream is like a new one without
/// bytes. Owning a buffer allocates once; borrowing allocates nothing.
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

    /// The bytes not read yet, in place; reads none of them. Valid while the bytes are. Throws
    /// std::ios_base::failure if the stream has failed (fail()), because its position then means
    /// nothing; rdbuf()->unread() returns the bytes in any state.
    [[nodiscard]] ByteBufferView unread() const COURIER_HUB_SERIALISATION_LIFETIMEBOUND;

    /// Counts the next n bytes as read. Throws std::out_of_range "Requested to skip more bytes than
    /// exist" when n is above unread().size(), and as unread() does; the position is then
    /// unchanged. Changes neither the state nor gcount().
    void skip(std::size_t n);

    /// The stream buffer of this stream.
    [[nodiscard]] ByteBufferIStreambuf*
    rdbuf() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return const_cast<ByteBufferIStreambuf*>(&buffer_);
    }

private:
    ByteBufferIStreambuf buffer_;
};

/// The bytes that `in` has not read yet, in place, for a decoder that takes a block. Empty if `in`
/// reads through anything but a read stream buffer of Streams.h itself (a class derived from one
/// may have more bytes than those at hand), or has failed (`!in`). Such a stream is read as any
/// std::istream is:
///
///     if (std::optional<ByteBufferView> const block = unread(in)) {
///         std::size_t const used = parse(block->data(), block->size());
///         skip(in, used);
///     } else {
///         parse(in);
///     }
///
/// Reads nothing. The view is valid while the bytes are. Constant time.
[[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT std::optional<ByteBufferView>
unread(std::istream& in);

/// Counts the next n bytes of unread(in) as read. Throws std::out_of_range "Requested to skip more
/// bytes than exist" when there are fewer; the position is then unchanged. Changes neither the
/// state nor gcount(). Preferable to in.ignore(n), which may set eofbit after the last byte, so
/// that reading an empty message next would fail.
COURIER_HUB_SERIALISATION_EXPORT void skip(std::istream& in, std::size_t n);

/// A std::ostream in front of another one, the target, whose writes end when a stop is requested.
/// An encoder that writes to it needs no checks of its own:
///
///     void write(Document const& document, std::ostream& out, stop_token const& token) {
///         StoppableOStream stoppable(token, out);
///         stoppable << document;
///     }
///
/// It passes every write on at once, in pieces of at most 64 KiB, and polls the token before each.
/// exceptions() include badbit from the start, so that these exceptions propagate through the
/// encoder to the caller:
///
/// - std::system_error with std::errc::operation_canceled on a stop.
/// - What the target's stream buffer throws, std::bad_alloc for instance.
/// - std::ios_base::failure if that takes fewer bytes, or if the target is not good already.
///
/// What was written before stays written, and the target's badbit is then set, so that a part is
/// not taken for the whole even if the encoder swallows the exception. An encoder that sets failbit
/// or badbit itself has the same effect on the target, at the latest in the destructor.
///
/// It holds no bytes back: there is nothing to flush at the end.
/// flush() flushes the target. It writes to the target's stream buffer directly, so the target's
/// tie() and unitbuf have no effect, and its own formatting and locale are those of a new stream.
/// Seeking fails. Not movable. The target must outlive it.
///
/// Allocates nothing. A write costs one more virtual call and one atomic load than without it; an
/// encoder that writes single characters notices.
class COURIER_HUB_SERIALISATION_EXPORT StoppableOStream final : public std::ostream {
public:
    /// An empty token never stops.
    StoppableOStream(stop_token token,
                     std::ostream& target COURIER_HUB_SERIALISATION_LIFETIMEBOUND);
    ~StoppableOStream() override;

    /// Throws std::system_error with std::errc::operation_canceled if a stop was requested. For an
    /// encoder that reads much and writes little: call it once for each piece read.
    void throwIfStopped() const { buffer_.throwIfStopped(); }

private:
    class COURIER_HUB_SERIALISATION_EXPORT Buffer : public std::streambuf {
    public:
        Buffer(stop_token token, std::ostream& target);
        ~Buffer() override;

        void failTarget() noexcept;
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

} // namespace courier::hub::serialisation

#endif
