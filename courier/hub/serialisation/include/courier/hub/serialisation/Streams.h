// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STREAMS_H
#define COURIER_HUB_SERIALISATION_STREAMS_H

#include <courier/hub/serialisation/Buffers.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <span>
#include <streambuf>
#include <type_traits>
#include <utility>

/// \file
/// Two ways to read bytes in place, and one to write them:
///
///     ByteStream            reads byte by byte, from any source, by input iterators
///     ByteBufferIStreambuf, NonOwningByteBufferViewIStreambuf
///                           read through any std::istream
///     ByteBufferOStreambuf  writes through any std::ostream, into a ByteBuffer
///
/// IOStreams.h has streams that contain these stream buffers.
///
/// None of these types locks: use a source or stream buffer, and everything that refers to it, on
/// one thread at a time.

namespace courier::hub::serialisation {

class ByteBufferByteStreamImpl;
class ByteStreamIterator;

/// An abstract source of bytes. Each byte is read once, in order. The read position belongs to the
/// source: everything that reads from one source shares it. Derive from it to give a ByteStream a
/// source of your own.
class COURIER_HUB_SERIALISATION_EXPORT ByteStreamImpl {
public:
    /// For the derived classes.
    ByteStreamImpl() = default;
    ByteStreamImpl(ByteStreamImpl const&) = default;
    ByteStreamImpl& operator=(ByteStreamImpl const&) = default;

    /// Reads the next byte and returns an iterator at it; the end iterator if there is none.
    [[nodiscard]] virtual ByteStreamIterator begin() = 0;

    /// True while at least one more byte can be read.
    [[nodiscard]] virtual explicit operator bool() const = 0;

    /// Reads the next byte and advances past it. What it throws at the end depends on the source.
    virtual std::byte getByte() = 0;

    virtual ~ByteStreamImpl();
};

/// The single-pass input iterator over a source, yielding std::byte. It caches its byte: the
/// source's position is one past it.
///
/// It owns nothing. Copies share the source, which must outlive them. If an operation throws, the
/// iterator is unchanged. A step over a source that is exactly a ByteBufferByteStreamImpl is
/// inlined; over any other it costs two virtual calls: operator bool(), then getByte().
class ByteStreamIterator {
public:
    /// Required by std::iterator_traits.
    using iterator_category = std::input_iterator_tag;
    using value_type = std::byte;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::byte;

    /// What `it++` returns: the byte at the old position.
    class PostIncrementHolder {
    public:
        /// That byte.
        [[nodiscard]] std::byte operator*() const noexcept { return byte_; }

    private:
        friend class ByteStreamIterator;
        explicit PostIncrementHolder(std::byte byte) noexcept : byte_(byte) {}
        std::byte byte_;
    };

    /// The end iterator.
    ByteStreamIterator() noexcept = default;

    /// Reads the next byte of the source. Makes the end iterator if there is none. Throws what the
    /// source throws.
    ByteStreamIterator(ByteStreamImpl& source COURIER_HUB_SERIALISATION_LIFETIMEBOUND)
        : source_(&source), buffer_(asBuffer(source)) {
        ++*this;
    }

    /// The byte here. Throws std::out_of_range "Attempt to dereference an invalid
    /// ByteStreamIterator" at the end.
    std::byte operator*() const {
        if (source_ == nullptr) {
            detail::throwOutOfRange("Attempt to dereference an invalid ByteStreamIterator");
        }
        return *current_;
    }

    /// Reads the next byte, or becomes the end iterator. Throws std::out_of_range "Attempt to
    /// increment the end ByteStreamIterator" at the end, and what the source throws.
    inline ByteStreamIterator& operator++();

    /// The same. Returns a holder of the byte at the old position.
    PostIncrementHolder operator++(int) {
        if (source_ == nullptr) {
            throwAtEnd();
        }
        PostIncrementHolder const holder(*current_);
        ++*this;
        return holder;
    }

    /// True when both read the same source, or both are at the end. Bytes are not compared.
    friend bool operator==(ByteStreamIterator const& a, ByteStreamIterator const& b) noexcept {
        return a.source_ == b.source_;
    }

private:
    friend class ByteStreamCharIterator;

    [[noreturn]] static void throwAtEnd() {
        detail::throwOutOfRange("Attempt to increment the end ByteStreamIterator");
    }

    [[nodiscard]] COURIER_HUB_SERIALISATION_EXPORT static ByteBufferByteStreamImpl*
    asBuffer(ByteStreamImpl& source) noexcept;

    ByteStreamImpl* source_ = nullptr;           // null at the end, and only there
    std::optional<std::byte> current_;           // empty at the end, and only there
    ByteBufferByteStreamImpl* buffer_ = nullptr; // the source, if it is exactly of this class
};

static_assert(std::is_trivially_copyable_v<ByteStreamIterator>);

/// The same as ByteStreamIterator, but yielding char, so that std::string(begin, end) works. It
/// reads one byte ahead of its character.
///
/// It owns nothing. The source must outlive it. If an operation throws, the iterator is unchanged.
class ByteStreamCharIterator {
public:
    /// Required by std::iterator_traits.
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = char;

    /// What `it++` returns: the character at the old position.
    class PostIncrementHolder {
    public:
        /// That character.
        [[nodiscard]] char operator*() const noexcept { return character_; }

    private:
        friend class ByteStreamCharIterator;
        explicit PostIncrementHolder(char character) noexcept : character_(character) {}
        char character_;
    };

    /// The end iterator.
    ByteStreamCharIterator() noexcept = default;

    /// At the byte of `it`; the end iterator if `it` is. Reads the byte after it from the source.
    /// Throws what the source throws.
    ByteStreamCharIterator(ByteStreamIterator it) : inner_(it) { ++*this; }

    /// The character here. Throws std::out_of_range "Attempt to dereference an invalid
    /// ByteStreamCharIterator" at the end.
    char operator*() const {
        if (!current_) {
            detail::throwOutOfRange("Attempt to dereference an invalid ByteStreamCharIterator");
        }
        return *current_;
    }

    /// Moves to the next character, or becomes the end iterator. Throws std::out_of_range "Attempt
    /// to increment the end ByteStreamCharIterator" at the end, and what the source throws.
    COURIER_HUB_SERIALISATION_EXPORT ByteStreamCharIterator& operator++();

    /// The same. Returns a holder of the character at the old position.
    PostIncrementHolder operator++(int) {
        if (!current_) {
            throwAtEnd();
        }
        PostIncrementHolder const holder(*current_);
        ++*this;
        return holder;
    }

    /// True when both are at the end, or neither is and the byte iterators inside are equal.
    friend bool operator==(ByteStreamCharIterator const& a,
                           ByteStreamCharIterator const& b) noexcept {
        return a.inner_ == b.inner_;
    }

private:
    [[nodiscard]] static char toChar(std::byte byte) noexcept { return static_cast<char>(byte); }
    [[noreturn]] static void throwAtEnd() {
        detail::throwOutOfRange("Attempt to increment the end ByteStreamCharIterator");
    }

    std::optional<ByteStreamIterator> inner_; // empty at the end, and only there
    std::optional<char> current_;
};

static_assert(std::is_trivially_copyable_v<ByteStreamCharIterator>);

/// A source that reads a buffer, which it owns. Move-only; a moved-from source is at its end.
///
/// Reading a byte from a local object of this class is inlined. Through a reference it is a virtual
/// call, because the object may be of a derived class. A derived class marked `final` is inlined,
/// too.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferByteStreamImpl : public ByteStreamImpl {
public:
    /// Takes the buffer over and reads it from its first byte on.
    explicit ByteBufferByteStreamImpl(ByteBuffer&& buffer) noexcept
        : buffer_(std::move(buffer)), next_(std::as_const(buffer_).data()),
          end_(next_ + buffer_.size()) {}

    /// Takes over the buffer and the position. A self-assignment changes nothing.
    ByteBufferByteStreamImpl(ByteBufferByteStreamImpl&& other) noexcept;
    ByteBufferByteStreamImpl& operator=(ByteBufferByteStreamImpl&& other) noexcept;
    ~ByteBufferByteStreamImpl() override;

    [[nodiscard]] ByteStreamIterator begin() override;

    [[nodiscard]] explicit operator bool() const override { return next_ != end_; }

    /// Throws std::out_of_range "Attempt to access position beyond the end of the ByteBuffer" at
    /// the end, on every call.
    std::byte getByte() override {
        if (next_ == end_) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return *next_++;
    }

private:
    friend class ByteStreamIterator; // reads in place

    ByteBuffer buffer_;     // its bytes keep their address when it is moved
    std::byte const* next_; // equal to end_ at the end
    std::byte const* end_;
};

inline ByteStreamIterator& ByteStreamIterator::operator++() {
    if (source_ == nullptr) {
        throwAtEnd();
    }
    if (buffer_ != nullptr) {
        if (buffer_->next_ != buffer_->end_) {
            current_ = *buffer_->next_++;
            return *this;
        }
    } else if (*source_) {
        current_ = source_->getByte();
        return *this;
    }
    source_ = nullptr;
    current_.reset();
    return *this;
}

/// The owner of one source; a std::ranges::input_range. Use it to pass bytes to code that need not
/// know where they come from. To read in bulk, use a std::istream over one of the stream buffers
/// below.
///
/// Move-only; a moved-from stream has no source.
class COURIER_HUB_SERIALISATION_EXPORT ByteStream {
public:
    /// A stream without a source: at its end from the start.
    ByteStream() noexcept = default;

    /// Takes ownership of the source. Null makes a stream without a source.
    ByteStream(std::unique_ptr<ByteStreamImpl> source) noexcept : source_(std::move(source)) {}

    /// Takes the source over.
    ByteStream(ByteStream&&) noexcept = default;
    /// The same. Destroys the source held before.
    ByteStream& operator=(ByteStream&&) noexcept = default;
    ~ByteStream() = default;

    /// Reads the next byte and returns an iterator at it, so calling it twice loses a byte. Throws
    /// what the source throws.
    [[nodiscard]] ByteStreamIterator begin() const {
        return source_ ? source_->begin() : ByteStreamIterator();
    }
    /// The end iterator, the same for every stream.
    [[nodiscard]] ByteStreamIterator end() const noexcept { return {}; }

    /// Reads the next byte. Throws what the source throws at its end; without a source,
    /// std::out_of_range "ByteStream has no source".
    std::byte getByte() {
        if (!source_) {
            detail::throwOutOfRange("ByteStream has no source");
        }
        return source_->getByte();
    }

    /// True while at least one more byte can be read.
    [[nodiscard]] explicit operator bool() const { return source_ && *source_; }

private:
    std::unique_ptr<ByteStreamImpl> source_;
};

namespace detail {

/// The common base of both read stream buffers. The get area is set once, to the whole range of
/// bytes. Refilling, seeking and writing fail. Bytes that were read can be put back.
class COURIER_HUB_SERIALISATION_EXPORT ReadOnlyStreambuf : public std::streambuf {
public:
    ~ReadOnlyStreambuf() override;

    /// A view of the bytes not read yet, in place. Does not read them. Valid while the bytes are.
    [[nodiscard]] ByteBufferView unread() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {reinterpret_cast<std::byte const*>(gptr()),
                static_cast<std::size_t>(egptr() - gptr())};
    }

    /// Marks the next n bytes as read. Throws std::out_of_range "Requested to skip more bytes than
    /// exist" when n is above unread().size(); the position is then unchanged.
    void skip(std::size_t n) {
        if (n > unread().size()) {
            detail::throwOutOfRange("Requested to skip more bytes than exist");
        }
        setg(eback(), gptr() + n, egptr());
    }

protected:
    /// For the derived classes.
    explicit ReadOnlyStreambuf(ByteBufferView bytes);
    [[nodiscard]] ByteBuffer takeCopy(std::size_t n);
    void passOver(std::size_t n) noexcept;
    ReadOnlyStreambuf(ReadOnlyStreambuf const&) = default;
    ReadOnlyStreambuf& operator=(ReadOnlyStreambuf const&) = default;

    /// As in std::streambuf.
    int_type underflow() override;
    std::streamsize xsgetn(char* s, std::streamsize n) override;
};

} // namespace detail

/// A std::streambuf that reads bytes in place: those of a buffer that it owns, or borrowed ones.
///
/// Use it when the reader must own the bytes. For a view, use NonOwningByteBufferViewIStreambuf,
/// whose name tells the reader that somebody else owns the bytes.
///
/// in_avail() is the number of bytes not read yet, unread() a view of them, skip(n) marks n of them
/// as read, and take(n) reads them as a buffer of their own. Seeking and writing fail, so tellg()
/// is -1 even on a good stream.
///
/// Move-only; a moved-from one is at its end and owns nothing. Bytes are copied only into the
/// caller's memory, one block per bulk read.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferIStreambuf : public detail::ReadOnlyStreambuf {
public:
    /// Takes ownership of the buffer. Throws std::invalid_argument if it is null.
    explicit ByteBufferIStreambuf(std::unique_ptr<ByteBuffer> buffer);

    /// Borrows the bytes: the caller keeps them alive and unchanged. Throws std::invalid_argument
    /// for a null view with a length.
    explicit ByteBufferIStreambuf(ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// Borrows the bytes of a buffer, which the caller keeps alive and unchanged.
    explicit ByteBufferIStreambuf(ByteBuffer const& buffer COURIER_HUB_SERIALISATION_LIFETIMEBOUND)
        : ByteBufferIStreambuf(ByteBufferView(buffer)) {}

    /// Deleted: a temporary would be gone before it is read. Pass a std::unique_ptr.
    explicit ByteBufferIStreambuf(ByteBuffer const&&) = delete;

    /// Takes over the bytes and the position. An assignment frees the buffer owned before.
    ByteBufferIStreambuf(ByteBufferIStreambuf&& other) noexcept;
    ByteBufferIStreambuf& operator=(ByteBufferIStreambuf&& other) noexcept;
    ~ByteBufferIStreambuf() override;

    /// Reads the next n bytes as a buffer of their own, which may outlive this object. If this
    /// object owns its bytes, none is copied: they keep their address and are shared, as by
    /// ByteBuffer::splitFront(), but this object keeps its share of the whole. Allocates once for
    /// the first n above 0, then nothing. Borrowed bytes are copied.
    ///
    /// What was read before cannot be put back, unless n is 0, because the owner of the result may
    /// change it. Throws std::out_of_range "Requested to take more bytes than exist" when n is
    /// above unread().size(), std::bad_alloc; the position is then unchanged.
    [[nodiscard]] ByteBuffer take(std::size_t n);

private:
    std::unique_ptr<ByteBuffer> owned_; // null if the bytes are borrowed
};

/// A std::streambuf that reads borrowed bytes in place. The caller keeps them alive and unchanged.
///
/// Use it to read a view. Several may read the same bytes, each from its own position. When the
/// reader must own the bytes, use ByteBufferIStreambuf.
///
/// in_avail(), unread(), skip(), seeking and writing work as for ByteBufferIStreambuf; take()
/// copies.
///
/// Move-only; a moved-from one remains usable and continues from its own position.
class COURIER_HUB_SERIALISATION_EXPORT NonOwningByteBufferViewIStreambuf
    : public detail::ReadOnlyStreambuf {
public:
    /// Throws std::invalid_argument for a null view with a length.
    explicit NonOwningByteBufferViewIStreambuf(
        ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// The bytes of a buffer.
    explicit NonOwningByteBufferViewIStreambuf(
        ByteBuffer const& buffer COURIER_HUB_SERIALISATION_LIFETIMEBOUND)
        : NonOwningByteBufferViewIStreambuf(ByteBufferView(buffer)) {}

    /// Deleted: a temporary would be gone before it is read. Keep it in a variable.
    explicit NonOwningByteBufferViewIStreambuf(ByteBuffer const&&) = delete;

    /// Copies the view and the position.
    NonOwningByteBufferViewIStreambuf(NonOwningByteBufferViewIStreambuf&& other) noexcept;
    NonOwningByteBufferViewIStreambuf&
    operator=(NonOwningByteBufferViewIStreambuf&& other) noexcept;
    ~NonOwningByteBufferViewIStreambuf() override;

    /// Reads the next n bytes into a buffer of their own, a copy. Throws as
    /// ByteBufferIStreambuf::take() does; the position is then unchanged.
    [[nodiscard]] ByteBuffer take(std::size_t n) { return takeCopy(n); }

protected:
    /// As in std::streambuf. The override, which does what the base class does, is part of the
    /// interface.
    int_type uflow() override;

private:
    ByteBufferView view_; // the whole get area; part of the interface, not read here
};

/// A std::streambuf that writes into a growing block and returns it as a ByteBuffer.
///
/// Use it under a std::ostream of your own, and check that stream before release(), which also
/// returns a part of a message. Otherwise use ByteBufferOStream, whose release() throws instead:
///
///     ByteBufferOStreambuf sink;
///     std::ostream out(&sink);
///     out << 3 << " apples";
///     if (!out) { // out of memory: the sink holds a part
///         throw std::bad_alloc();
///     }
///     ByteBuffer bytes = sink.release(); // copies no byte
///
/// Move-only; a moved-from one is empty and may be written to. Seeking and reading fail.
///
/// Writing throws std::bad_alloc when memory is exhausted, and std::length_error "vector too long"
/// when the block would exceed 2^63 - 1 bytes. What was written before is kept. A std::ostream
/// catches the exception and sets its badbit; it rethrows only if its exceptions() include badbit.
///
/// Writing takes amortised constant time per byte: the block grows to at least 512 bytes and at
/// least twice what was written. A released block keeps its unused capacity; ByteBuffer::clone()
/// makes a copy without it.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferOStreambuf : public std::streambuf {
public:
    /// Reserves `reserve` bytes; 0 allocates nothing until the first write. Throws std::bad_alloc,
    /// std::length_error "vector too long" above 2^63 - 1.
    explicit ByteBufferOStreambuf(std::size_t reserve = 0);

    /// Takes over what was written; the bytes keep their address. An assignment frees what this
    /// object held.
    ByteBufferOStreambuf(ByteBufferOStreambuf&& other) noexcept;
    ByteBufferOStreambuf& operator=(ByteBufferOStreambuf&& other) noexcept;
    ~ByteBufferOStreambuf() override;

    /// The number of bytes written since construction or the last release().
    [[nodiscard]] std::size_t size() const noexcept {
        return static_cast<std::size_t>(pptr() - block_.get());
    }

    /// Returns the bytes written, in external form, without copying them. This object is then
    /// empty. Constant time; allocates nothing.
    [[nodiscard]] ByteBuffer release();

    /// The room behind the bytes written, of at least n bytes, for an encoder that writes to
    /// memory. Their values are unspecified. Valid until the next write, prepare() or release(),
    /// and unless this object is moved. Grows as a write of n bytes does, and throws what that
    /// throws.
    [[nodiscard]] std::span<std::byte> prepare(std::size_t n) {
        if (n > room()) {
            grow(n);
        }
        return {reinterpret_cast<std::byte*>(pptr()), room()};
    }

    /// Counts the first n bytes of that room as written. Throws std::out_of_range "Requested to
    /// commit more bytes than were prepared" when there are fewer; nothing is then written.
    void commit(std::size_t n) {
        if (n > room()) {
            detail::throwOutOfRange("Requested to commit more bytes than were prepared");
        }
        setp(pptr() + n, epptr());
    }

protected:
    /// As in std::streambuf.
    int_type overflow(int_type c) override;
    std::streamsize xsputn(char const* s, std::streamsize n) override;

private:
    struct Free {
        void operator()(void* block) const noexcept;
    };

    [[nodiscard]] std::size_t room() const noexcept {
        return static_cast<std::size_t>(epptr() - pptr());
    }
    void grow(std::size_t added);
    void setCapacity(std::size_t capacity);
    void swap(ByteBufferOStreambuf& other) noexcept;

    std::unique_ptr<char, Free> block_;
};

} // namespace courier::hub::serialisation

#endif
