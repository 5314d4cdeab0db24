// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_STREAMS_H
#define COURIER_HUB_SERIALISATION_STREAMS_H

#include <courier/hub/serialisation/Buffers.h>

#include <cstddef>
#include <iterator>
#include <memory>
#include <optional>
#include <streambuf>
#include <type_traits>
#include <utility>

// The code below handles raw bytes, bounds included.
#if defined(__clang__) && __clang_major__ >= 16
#pragma clang unsafe_buffer_usage begin
#endif

// Two ways to read bytes in place, and one to write them:
//
//   ByteStream            byte by byte, from any source, by input iterators
//   ByteBufferIStreambuf, NonOwningByteBufferViewIStreambuf
//                         through any std::istream
//   ByteBufferOStreambuf  through any std::ostream, into a ByteBuffer
//
// IOStreams.h has streams that contain these stream buffers.
//
// None of these types locks: a source or stream buffer, together with everything that refers to it,
// belongs to one thread at a time.

namespace courier::hub::serialisation {

class ByteStreamIterator;

/// An abstract source of bytes, which are read one by one, in order and only once. The read
/// position belongs to the source: everything that reads from one source shares it.
class COURIER_HUB_SERIALISATION_EXPORT ByteStreamImpl {
public:
    /// For the derived classes.
    ByteStreamImpl() = default;
    ByteStreamImpl(ByteStreamImpl const&) = default;
    ByteStreamImpl& operator=(ByteStreamImpl const&) = default;

    /// An iterator at the next byte, which is read by this call; the end iterator if there is none.
    [[nodiscard]] virtual ByteStreamIterator begin() = 0;

    /// True while at least one more byte can be read.
    [[nodiscard]] virtual explicit operator bool() const = 0;

    /// Reads the next byte and advances past it. What it throws at the end is up to the source.
    virtual std::byte getByte() = 0;

    virtual ~ByteStreamImpl();
};

/// The single-pass input iterator over a source, yielding std::byte. It caches its byte; the
/// source's position is one past it. Copies share the source. It must not outlive the source. Each
/// step costs two virtual calls. If an operation throws, the iterator is unchanged.
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

    /// Reads the next byte of the source; the end iterator if there is none. Throws what the source
    /// throws.
    ByteStreamIterator(ByteStreamImpl& source COURIER_HUB_SERIALISATION_LIFETIMEBOUND) {
        if (source) {
            current_ = source.getByte();
            source_ = &source;
        }
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
    ByteStreamIterator& operator++() {
        if (source_ == nullptr) {
            throwAtEnd();
        }
        if (*source_) {
            current_ = source_->getByte();
        } else {
            source_ = nullptr;
            current_.reset();
        }
        return *this;
    }

    /// The same; returns the byte at the old position.
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

    ByteStreamImpl* source_ = nullptr; // null at the end, and only there
    std::optional<std::byte> current_; // empty at the end, and only there
};

static_assert(std::is_trivially_copyable_v<ByteStreamIterator>);

/// The same as ByteStreamIterator, but yielding char, so that a std::string can be made from a
/// pair. Its byte iterator runs one byte ahead. If an operation throws, the iterator is unchanged.
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

    /// Starts at the byte of `it`, and reads the one after it from the source. Throws what the
    /// source throws.
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

    /// The same; returns the character at the old position.
    PostIncrementHolder operator++(int) {
        if (!current_) {
            throwAtEnd();
        }
        PostIncrementHolder const holder(*current_);
        ++*this;
        return holder;
    }

    /// True when both are at the end, or neither is and their byte iterators are equal.
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

/// The source over a buffer that it owns. Move-only; a moved-from source is at its end.
///
/// Reading a byte from a local object of this class is inlined. Through a reference it is a virtual
/// call, because the object may be of a derived class; mark the derived class `final` to have it
/// inlined there as well.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferByteStreamImpl : public ByteStreamImpl {
public:
    /// Takes the buffer over and reads it from its first byte on.
    explicit ByteBufferByteStreamImpl(ByteBuffer&& buffer) noexcept
        : buffer_(std::move(buffer)), next_(std::as_const(buffer_).data()),
          end_(next_ + buffer_.size()) {}

    /// Takes over the buffer and the position. Assigning a source to itself changes nothing.
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
    ByteBuffer buffer_;     // its bytes keep their address when it is moved
    std::byte const* next_; // equal to end_ at the end
    std::byte const* end_;
};

/// The owner of one source: a std::ranges::input_range. Move-only; a moved-from stream has no
/// source.
class COURIER_HUB_SERIALISATION_EXPORT ByteStream {
public:
    /// A stream without a source: at its end from the start.
    ByteStream() noexcept = default;

    /// Takes ownership of the source; null makes a stream without a source.
    ByteStream(std::unique_ptr<ByteStreamImpl> source) noexcept : source_(std::move(source)) {}

    /// Takes the source over.
    ByteStream(ByteStream&&) noexcept = default;
    /// Destroys the source held before.
    ByteStream& operator=(ByteStream&&) noexcept = default;
    ~ByteStream() = default;

    /// An iterator at the next byte, which is read by this call: calling it twice loses a byte.
    /// Throws what the source throws.
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

/// The common base of both read stream buffers: the get area is the whole range of bytes, set once.
/// There is no refill, no seeking and no put area. Putting back works up to the first byte.
class COURIER_HUB_SERIALISATION_EXPORT ReadOnlyStreambuf : public std::streambuf {
public:
    ~ReadOnlyStreambuf() override;

    /// The bytes not read yet, in place; reads none of them. Valid while the bytes are.
    [[nodiscard]] ByteBufferView unread() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {reinterpret_cast<std::byte const*>(gptr()),
                static_cast<std::size_t>(egptr() - gptr())};
    }

    /// Counts the next n bytes as read. Throws std::out_of_range "Requested to skip more bytes than
    /// exist" when n is above unread().size(); the position is then unchanged.
    void skip(std::size_t n) {
        if (n > unread().size()) {
            detail::throwOutOfRange("Requested to skip more bytes than exist");
        }
        setg(eback(), gptr() + n, egptr());
    }

protected:
    explicit ReadOnlyStreambuf(ByteBufferView bytes);
    ReadOnlyStreambuf(ReadOnlyStreambuf const&) = default;
    ReadOnlyStreambuf& operator=(ReadOnlyStreambuf const&) = default;

    int_type underflow() override;
    std::streamsize xsgetn(char* s, std::streamsize n) override;
};

} // namespace detail

/// A std::streambuf that reads in place the bytes of a buffer that it owns, or borrowed ones. Use
/// it where the reader has to own the bytes; for borrowed bytes alone,
/// NonOwningByteBufferViewIStreambuf says so in its name and behaves the same.
///
/// in_avail() is the number of bytes not read yet, and unread() is a view of them; skip(n) counts n
/// of them as read. Seeking and writing fail, so tellg() is -1 on a good stream.
///
/// Move-only; a moved-from one is at its end. Bytes are copied only into the caller's memory, one
/// block per bulk read.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferIStreambuf : public detail::ReadOnlyStreambuf {
public:
    /// Owns the buffer. Throws std::invalid_argument if it is null.
    explicit ByteBufferIStreambuf(std::unique_ptr<ByteBuffer> buffer);

    /// Borrows the bytes: the caller keeps them alive and unchanged. Throws std::invalid_argument
    /// for a null view with a length.
    explicit ByteBufferIStreambuf(ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// Borrows the bytes of a buffer, which the caller keeps alive and unchanged.
    explicit ByteBufferIStreambuf(ByteBuffer const& buffer COURIER_HUB_SERIALISATION_LIFETIMEBOUND)
        : ByteBufferIStreambuf(ByteBufferView(buffer)) {}

    /// Deleted: a temporary would be gone before it is read. Pass a std::unique_ptr.
    explicit ByteBufferIStreambuf(ByteBuffer const&&) = delete;

    /// Takes over the bytes and the position.
    ByteBufferIStreambuf(ByteBufferIStreambuf&& other) noexcept;
    ByteBufferIStreambuf& operator=(ByteBufferIStreambuf&& other) noexcept;
    ~ByteBufferIStreambuf() override;

private:
    std::unique_ptr<ByteBuffer> owned_; // on the heap, so that a move leaves the bytes in place
};

/// A std::streambuf that reads in place bytes that it never owns: the caller keeps them alive and
/// unchanged. Several may read the same bytes, each from its own position. Where the reader has to
/// own the bytes, use ByteBufferIStreambuf.
///
/// in_avail(), unread(), skip(), seeking and writing: as for ByteBufferIStreambuf.
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

protected:
    /// As in std::streambuf. Does what the inherited one does; overridden for the ABI's sake.
    int_type uflow() override;

private:
    ByteBufferView view_; // all bytes of the get area, for the debugger
};

/// A std::streambuf that writes into a growing block and returns it as a ByteBuffer. To write a
/// whole message use ByteBufferOStream, which contains one and whose release() refuses a part of a
/// message. Use this class under a std::ostream of your own, and look at that stream before you
/// release what was written:
///
///     ByteBufferOStreambuf sink;
///     std::ostream out(&sink);
///     out << 3 << " apples";
///     if (!out) { // memory ran out: the sink holds a part
///         throw std::bad_alloc();
///     }
///     ByteBuffer bytes = sink.release(); // copies no byte
///
/// When memory runs out, or the block would exceed 2^63 - 1 bytes, writing throws std::bad_alloc or
/// std::length_error "vector too long". A std::ostream catches that and sets its badbit; it
/// rethrows only if its exceptions() include badbit. What was written before is kept.
///
/// Move-only; a moved-from one is empty and may be written to. Seeking and reading fail.
///
/// Writing takes amortised constant time per byte: a full block is replaced by one of at least
/// twice the size. A released block keeps its spare room until it is freed: up to as much again as
/// was written, or what `reserve` left unused. Use ByteBuffer::clone() for an exact copy.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferOStreambuf : public std::streambuf {
public:
    /// Reserves `reserve` bytes; 0 allocates nothing until the first write. Throws std::bad_alloc,
    /// std::length_error "vector too long" above 2^63 - 1.
    explicit ByteBufferOStreambuf(std::size_t reserve = 0);

    /// Takes over what was written; the bytes stay where they are.
    ByteBufferOStreambuf(ByteBufferOStreambuf&& other) noexcept;
    ByteBufferOStreambuf& operator=(ByteBufferOStreambuf&& other) noexcept;
    ~ByteBufferOStreambuf() override;

    /// The number of bytes written since construction or the last release().
    [[nodiscard]] std::size_t size() const noexcept {
        return static_cast<std::size_t>(pptr() - block_.get());
    }

    /// The bytes written, in external form, in the block that they were written to; this object is
    /// then empty. Constant time, allocates nothing.
    [[nodiscard]] ByteBuffer release();

protected:
    /// As in std::streambuf.
    int_type overflow(int_type c) override;
    std::streamsize xsputn(char const* s, std::streamsize n) override;

private:
    struct Free {
        void operator()(void* block) const noexcept;
    };

    void reserveFor(std::size_t added);
    void setCapacity(std::size_t capacity);
    void swap(ByteBufferOStreambuf& other) noexcept;

    std::unique_ptr<char, Free> block_;
};

} // namespace courier::hub::serialisation

#if defined(__clang__) && __clang_major__ >= 16
#pragma clang unsafe_buffer_usage end
#endif

#endif
