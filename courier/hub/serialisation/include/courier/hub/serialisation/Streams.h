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

// Two ways to read bytes in place, and one to write them:
//
//   ByteStream            byte by byte, from any source, by input iterators
//   ByteBufferIStreambuf, NonOwningByteBufferViewIStreambuf
//                         through any std::istream
//   ByteBufferOStreambuf  through any std::ostream, into a ByteBuffer
//
// None of these types locks: a source or stream buffer, and all that refers to it, belongs to one
// thread at a time.

namespace courier::hub::serialisation {

class ByteStreamIterator;

/// An abstract source of bytes that are read one by one, in order and only once. The read position
/// lives here, so everything that reads from one source shares it.
class COURIER_HUB_SERIALISATION_EXPORT ByteStreamImpl {
public:
    /// For the derived classes.
    ByteStreamImpl() = default;
    ByteStreamImpl(ByteStreamImpl const&) = default;
    ByteStreamImpl& operator=(ByteStreamImpl const&) = default;

    /// An iterator at the next byte, which it reads at once; the end iterator when there is none.
    [[nodiscard]] virtual ByteStreamIterator begin() = 0;

    /// Whether at least one more byte can be read.
    [[nodiscard]] virtual explicit operator bool() const = 0;

    /// Reads the next byte and advances past it; throws what the source throws when there is none.
    virtual std::byte getByte() = 0;

    virtual ~ByteStreamImpl();
};

/// The single-pass input iterator over a source, yielding std::byte. It holds the byte that it
/// designates, and the source stands behind that byte; copies share the source. It must not outlive
/// the source. Each step costs two virtual calls. An iterator that throws is left unchanged.
class ByteStreamIterator {
public:
    /// As the standard library asks for.
    using iterator_category = std::input_iterator_tag;
    using value_type = std::byte;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = std::byte;

    /// What `it++` returns: the byte that the iterator designated before.
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

    /// Reads the first byte; the end iterator when the source has none. Throws what it throws.
    explicit ByteStreamIterator(ByteStreamImpl& source) {
        if (source) {
            current_ = source.getByte();
            source_ = &source;
        }
    }

    /// Throws std::out_of_range "Attempt to dereference an invalid ByteStreamIterator" at the end.
    std::byte operator*() const {
        if (!current_) {
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

    /// The same; the holder keeps the byte designated before.
    PostIncrementHolder operator++(int) {
        if (!current_) {
            throwAtEnd();
        }
        PostIncrementHolder const holder(*current_);
        ++*this;
        return holder;
    }

    /// Whether both read the same source, or both are at the end. The bytes are not compared.
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
/// pair. Its byte iterator runs one byte ahead. An iterator that throws is left unchanged.
class ByteStreamCharIterator {
public:
    /// As the standard library asks for.
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = void;
    using reference = char;

    /// What `it++` returns: the character that the iterator designated before.
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

    /// Designates the byte that `it` designates, and reads the one behind it. Throws what the
    /// source throws.
    explicit ByteStreamCharIterator(ByteStreamIterator it) : inner_(it) { ++*this; }

    /// Throws std::out_of_range "Attempt to dereference an invalid ByteStreamCharIterator" at the
    /// end.
    char operator*() const {
        if (!current_) {
            detail::throwOutOfRange("Attempt to dereference an invalid ByteStreamCharIterator");
        }
        return *current_;
    }

    /// Moves to the next character, or becomes the end iterator. Throws std::out_of_range "Attempt
    /// to increment the end ByteStreamCharIterator" at the end, and what the source throws.
    COURIER_HUB_SERIALISATION_EXPORT ByteStreamCharIterator& operator++();

    /// The same; the holder keeps the character designated before.
    PostIncrementHolder operator++(int) {
        if (!current_) {
            throwAtEnd();
        }
        PostIncrementHolder const holder(*current_);
        ++*this;
        return holder;
    }

    /// Whether both are at the end, or neither is and their byte iterators are equal.
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

/// The source over a buffer that it owns. Through this type, rather than the base, reading a byte
/// is inlined.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferByteStreamImpl final : public ByteStreamImpl {
public:
    /// Takes the buffer over and reads it from its first byte on.
    explicit ByteBufferByteStreamImpl(ByteBuffer&& buffer) noexcept
        : buffer_(std::move(buffer)), next_(std::as_const(buffer_).data()),
          end_(next_ + buffer_.size()) {}

    /// A moved-from source may only be destroyed or assigned to.
    ByteBufferByteStreamImpl(ByteBufferByteStreamImpl&&) noexcept = default;
    ByteBufferByteStreamImpl& operator=(ByteBufferByteStreamImpl&&) noexcept = default;
    ~ByteBufferByteStreamImpl() override;

    [[nodiscard]] ByteStreamIterator begin() override;

    [[nodiscard]] explicit operator bool() const override { return next_ != end_; }

    /// Throws std::out_of_range "Attempt to access position beyond the end of the ByteBuffer" when
    /// there is no byte left, now and whenever it is called again.
    std::byte getByte() override {
        if (next_ == end_) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return *next_++;
    }

private:
    ByteBuffer buffer_; // a move hands its bytes on without moving them
    std::byte const* next_;
    std::byte const* end_;
};

/// The owner of one source. Move-only; a moved-from stream has no source. A std::ranges
/// input_range.
class COURIER_HUB_SERIALISATION_EXPORT ByteStream {
public:
    /// A stream without a source: at its end from the start.
    ByteStream() noexcept = default;

    /// Takes the source over; null makes a stream without a source.
    explicit ByteStream(std::unique_ptr<ByteStreamImpl> source) noexcept
        : source_(std::move(source)) {}

    /// Takes the source over.
    ByteStream(ByteStream&&) noexcept = default;
    /// Destroys the source held before.
    ByteStream& operator=(ByteStream&&) noexcept = default;
    ~ByteStream() = default;

    /// An iterator at the next byte, which it reads at once: calling this twice loses a byte.
    /// Throws what the source throws.
    [[nodiscard]] ByteStreamIterator begin() const {
        return source_ ? source_->begin() : ByteStreamIterator();
    }
    /// The end iterator; any stream has one.
    [[nodiscard]] ByteStreamIterator end() const noexcept { return {}; }

    /// Reads the next byte. Throws what the source throws at its end; without a source,
    /// std::out_of_range "ByteStream has no source".
    std::byte getByte() {
        if (!source_) {
            detail::throwOutOfRange("ByteStream has no source");
        }
        return source_->getByte();
    }

    /// Whether at least one more byte can be read.
    [[nodiscard]] explicit operator bool() const { return source_ && *source_; }

private:
    std::unique_ptr<ByteStreamImpl> source_;
};

namespace detail {

/// What both read stream buffers share: a get area that is the whole range of bytes, set once.
/// There is no refill, no seeking and no put area; putting back works up to the first byte.
class COURIER_HUB_SERIALISATION_EXPORT ReadOnlyStreambuf : public std::streambuf {
public:
    ~ReadOnlyStreambuf() override;

protected:
    explicit ReadOnlyStreambuf(ByteBufferView bytes);
    ReadOnlyStreambuf(ReadOnlyStreambuf const&) = default;
    ReadOnlyStreambuf& operator=(ReadOnlyStreambuf const&) = default;

    int_type underflow() override;
    std::streamsize xsgetn(char* s, std::streamsize n) override;
};

} // namespace detail

/// A std::streambuf that reads the bytes of a buffer in place, or borrowed ones through a view.
/// Nothing is copied but into the reader's own memory, in one block copy for each bulk read.
///
/// Move-only; a moved-from one is at its end. Seeking and writing fail, as the standard's defaults.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferIStreambuf : public detail::ReadOnlyStreambuf {
public:
    /// Owns the buffer. Throws std::invalid_argument when it is null.
    explicit ByteBufferIStreambuf(std::unique_ptr<ByteBuffer> buffer);

    /// Owns nothing: the caller keeps the bytes alive and unchanged. Throws std::invalid_argument
    /// for a null view with a length.
    explicit ByteBufferIStreambuf(ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// A buffer that nobody keeps cannot be read: hand it over as a std::unique_ptr.
    explicit ByteBufferIStreambuf(ByteBuffer&&) = delete;

    /// Takes over the bytes and the position.
    ByteBufferIStreambuf(ByteBufferIStreambuf&& other) noexcept;
    ByteBufferIStreambuf& operator=(ByteBufferIStreambuf&& other) noexcept;
    ~ByteBufferIStreambuf() override;

private:
    std::unique_ptr<ByteBuffer> owned_; // on the heap, so that a move leaves the bytes in place
};

/// A std::streambuf that reads the bytes of a view in place and never owns them: the caller keeps
/// them alive and unchanged. Several may read one view, each from its own position.
///
/// Move-only; a moved-from one stays usable and reads on from its own position. Seeking and writing
/// fail, as the standard's defaults.
class COURIER_HUB_SERIALISATION_EXPORT NonOwningByteBufferViewIStreambuf
    : public detail::ReadOnlyStreambuf {
public:
    /// Throws std::invalid_argument for a null view with a length.
    explicit NonOwningByteBufferViewIStreambuf(
        ByteBufferView view COURIER_HUB_SERIALISATION_LIFETIMEBOUND);

    /// A buffer that nobody keeps cannot be read: keep it, and hand over a view of it.
    explicit NonOwningByteBufferViewIStreambuf(ByteBuffer&&) = delete;

    /// Takes over the view and the position.
    NonOwningByteBufferViewIStreambuf(NonOwningByteBufferViewIStreambuf&& other) noexcept;
    NonOwningByteBufferViewIStreambuf&
    operator=(NonOwningByteBufferViewIStreambuf&& other) noexcept;
    ~NonOwningByteBufferViewIStreambuf() override;

protected:
    /// As in std::streambuf.
    int_type uflow() override;

private:
    ByteBufferView view_; // what the get area covers, for the debugger
};

/// A std::streambuf that writes into a growing block and hands it out as a ByteBuffer:
///
///     ByteBufferOStreambuf sink;
///     std::ostream out(&sink);
///     serialiser(out);
///     ByteBuffer bytes = sink.release();  // no byte is copied
///
/// Writing takes amortised constant time for each byte. When memory runs out, or the block would
/// exceed 2^63 - 1 bytes, std::bad_alloc or std::length_error "vector too long" is thrown, which a
/// std::ostream on top turns into its badbit; what was written before stays.
///
/// Move-only; a moved-from one is empty and may be written to. Seeking and reading fail.
class COURIER_HUB_SERIALISATION_EXPORT ByteBufferOStreambuf : public std::streambuf {
public:
    /// Makes room for `reserve` bytes beforehand; for 0, allocates nothing before the first write.
    /// Throws std::bad_alloc, std::length_error "vector too long" above 2^63 - 1.
    explicit ByteBufferOStreambuf(std::size_t reserve = 0);

    /// Takes over what was written; the bytes stay where they are.
    ByteBufferOStreambuf(ByteBufferOStreambuf&& other) noexcept;
    ByteBufferOStreambuf& operator=(ByteBufferOStreambuf&& other) noexcept;
    ~ByteBufferOStreambuf() override;

    /// The number of bytes written since the start or the last release().
    [[nodiscard]] std::size_t size() const noexcept {
        return static_cast<std::size_t>(pptr() - block_.get());
    }

    /// The bytes written, in external form, in the very block that they were written to; this
    /// object starts anew, without a block. Constant time, allocates nothing.
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

#endif
