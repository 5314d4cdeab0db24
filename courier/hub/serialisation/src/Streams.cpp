// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Streams.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <typeinfo>

namespace courier::hub::serialisation {

static_assert(std::input_iterator<ByteStreamIterator>);
static_assert(std::input_iterator<ByteStreamCharIterator>);

ByteStreamImpl::~ByteStreamImpl() = default;

ByteBufferByteStreamImpl::ByteBufferByteStreamImpl(ByteBufferByteStreamImpl&& other) noexcept
    : buffer_(std::move(other.buffer_)), next_(std::exchange(other.next_, nullptr)),
      end_(std::exchange(other.end_, nullptr)) {}

// Frees the old buffer last, because its deleter may inspect this source. In a self-assignment the
// source gets back what std::exchange takes from it.
ByteBufferByteStreamImpl&
ByteBufferByteStreamImpl::operator=(ByteBufferByteStreamImpl&& other) noexcept {
    next_ = std::exchange(other.next_, nullptr);
    end_ = std::exchange(other.end_, nullptr);
    buffer_ = std::move(other.buffer_);
    return *this;
}

ByteBufferByteStreamImpl::~ByteBufferByteStreamImpl() = default;

ByteStreamIterator ByteBufferByteStreamImpl::begin() { return ByteStreamIterator(*this); }

// A derived class may override what the iterator would inline.
ByteBufferByteStreamImpl* ByteStreamIterator::asBuffer(ByteStreamImpl& source) noexcept {
    return typeid(source) == typeid(ByteBufferByteStreamImpl)
               ? static_cast<ByteBufferByteStreamImpl*>(&source)
               : nullptr;
}

// Out of line, because g++ takes current_ for uninitialised where it inlines this.
ByteStreamCharIterator& ByteStreamCharIterator::operator++() {
    if (!inner_) {
        throwAtEnd();
    }
    if (inner_->source_ == nullptr) {
        inner_.reset();
        current_.reset();
    } else {
        current_ = toChar(*(*inner_)++);
    }
    return *this;
}

namespace detail {

ReadOnlyStreambuf::~ReadOnlyStreambuf() = default;

ReadOnlyStreambuf::ReadOnlyStreambuf(ByteBufferView bytes) {
    if (bytes.data() == nullptr && !bytes.empty()) {
        throw std::invalid_argument("Stream buffer over a null view with a length");
    }
    auto* const first = reinterpret_cast<char*>(bytes.data());
    setg(first, first, first + bytes.size());
}

ByteBuffer ReadOnlyStreambuf::takeCopy(std::size_t n) {
    if (n > unread().size()) {
        throwOutOfRange("Requested to take more bytes than exist");
    }
    ByteBuffer copy(unread().first(n));
    passOver(n);
    return copy;
}

// As skip(), but nothing before can be put back.
void ReadOnlyStreambuf::passOver(std::size_t n) noexcept {
    if (n != 0) {
        setg(gptr() + n, gptr() + n, egptr());
    }
}

ReadOnlyStreambuf::int_type ReadOnlyStreambuf::underflow() {
    if (gptr() < eback() || gptr() >= egptr()) {
        return traits_type::eof();
    }
    return traits_type::to_int_type(*gptr()); // unsigned: 0xFF is not end of file
}

std::streamsize ReadOnlyStreambuf::xsgetn(char* s, std::streamsize n) {
    std::streamsize const count = std::min<std::streamsize>(n, egptr() - gptr());
    if (count <= 0) {
        return 0;
    }
    std::memcpy(s, gptr(), static_cast<std::size_t>(count));
    setg(eback(), gptr() + count, egptr()); // gbump() takes an int
    return count;
}

} // namespace detail

namespace {

ByteBufferView viewOf(std::unique_ptr<ByteBuffer> const& buffer) {
    if (!buffer) {
        throw std::invalid_argument("ByteBufferIStreambuf needs a buffer");
    }
    return {buffer->data(), buffer->size()};
}

} // namespace

ByteBufferIStreambuf::ByteBufferIStreambuf(std::unique_ptr<ByteBuffer> buffer)
    : ReadOnlyStreambuf(viewOf(buffer)), owned_(std::move(buffer)) {}

ByteBufferIStreambuf::ByteBufferIStreambuf(ByteBufferView view) : ReadOnlyStreambuf(view) {}

ByteBufferIStreambuf::ByteBufferIStreambuf(ByteBufferIStreambuf&& other) noexcept
    : ReadOnlyStreambuf(other), owned_(std::move(other.owned_)) {
    other.setg(nullptr, nullptr, nullptr);
}

ByteBufferIStreambuf& ByteBufferIStreambuf::operator=(ByteBufferIStreambuf&& other) noexcept {
    ReadOnlyStreambuf::operator=(other);
    if (this != &other) {
        owned_ = std::move(other.owned_);
        other.setg(nullptr, nullptr, nullptr);
    }
    return *this;
}

ByteBufferIStreambuf::~ByteBufferIStreambuf() = default;

ByteBuffer ByteBufferIStreambuf::take(std::size_t n) {
    // A class derived from this one may have set another get area.
    bool const isOwned = owned_ != nullptr && n != 0 && n <= unread().size() &&
                         std::less_equal<>()(owned_->data(), unread().data()) &&
                         std::less_equal<>()(unread().data() + n, owned_->data() + owned_->size());
    if (!isOwned) {
        return takeCopy(n);
    }
    auto const offset = static_cast<std::size_t>(unread().data() - owned_->data());
    ByteBuffer taken = owned_->sharePart(offset, n);
    passOver(n);
    return taken;
}

NonOwningByteBufferViewIStreambuf::NonOwningByteBufferViewIStreambuf(ByteBufferView view)
    : ReadOnlyStreambuf(view), view_(view) {}

NonOwningByteBufferViewIStreambuf::NonOwningByteBufferViewIStreambuf(
    NonOwningByteBufferViewIStreambuf&& other) noexcept
    : ReadOnlyStreambuf(other), view_(other.view_) {}

NonOwningByteBufferViewIStreambuf&
NonOwningByteBufferViewIStreambuf::operator=(NonOwningByteBufferViewIStreambuf&& other) noexcept {
    ReadOnlyStreambuf::operator=(other);
    view_ = other.view_;
    return *this;
}

NonOwningByteBufferViewIStreambuf::~NonOwningByteBufferViewIStreambuf() = default;

NonOwningByteBufferViewIStreambuf::int_type NonOwningByteBufferViewIStreambuf::uflow() {
    int_type const byte = underflow();
    if (!traits_type::eq_int_type(byte, traits_type::eof())) {
        setg(eback(), gptr() + 1, egptr());
    }
    return byte;
}

// The block is from std::malloc, because std::realloc can enlarge a large block without copying it.
// The put area is the unwritten rest of the block, so that the position is never set by pbump(),
// which takes an int.

void ByteBufferOStreambuf::Free::operator()(void* block) const noexcept { std::free(block); }

ByteBufferOStreambuf::ByteBufferOStreambuf(std::size_t reserve) {
    if (reserve != 0) {
        setCapacity(reserve);
    }
}

ByteBufferOStreambuf::ByteBufferOStreambuf(ByteBufferOStreambuf&& other) noexcept { swap(other); }

ByteBufferOStreambuf& ByteBufferOStreambuf::operator=(ByteBufferOStreambuf&& other) noexcept {
    if (this != &other) {
        ByteBufferOStreambuf taken(std::move(other));
        swap(taken);
    }
    return *this;
}

ByteBufferOStreambuf::~ByteBufferOStreambuf() = default;

ByteBuffer ByteBufferOStreambuf::release() {
    std::size_t const written = size();
    ByteBuffer::Deleter free = Free();
    ByteBuffer bytes(ByteBuffer::Block(block_.release(), std::move(free)), written);
    setp(nullptr, nullptr);
    return bytes;
}

ByteBufferOStreambuf::int_type ByteBufferOStreambuf::overflow(int_type c) {
    if (!traits_type::eq_int_type(c, traits_type::eof())) {
        char const character = traits_type::to_char_type(c);
        xsputn(&character, 1);
    }
    return traits_type::not_eof(c);
}

std::streamsize ByteBufferOStreambuf::xsputn(char const* s, std::streamsize n) {
    if (n <= 0) {
        return 0;
    }
    auto const count = static_cast<std::size_t>(n);
    char* const to = reinterpret_cast<char*>(prepare(count).data());
    detail::copyBytes(to, s, count);
    setp(to + count, epptr());
    return n;
}

void ByteBufferOStreambuf::grow(std::size_t added) {
    std::size_t const written = size();
    if (added > detail::longest - written) {
        detail::throwTooLong();
    }
    constexpr std::size_t smallest = 512;
    setCapacity(std::max({written + added, std::min(2 * written, detail::longest), smallest}));
}

void ByteBufferOStreambuf::setCapacity(std::size_t capacity) {
    if (capacity > detail::longest) {
        detail::throwTooLong();
    }
    std::size_t const written = size();
    auto* const block = static_cast<char*>(std::realloc(block_.get(), capacity));
    if (block == nullptr) {
        throw std::bad_alloc(); // the old block is unchanged
    }
    static_cast<void>(block_.release());
    block_.reset(block);
    setp(block + written, block + capacity);
}

void ByteBufferOStreambuf::swap(ByteBufferOStreambuf& other) noexcept {
    std::streambuf::swap(other);
    block_.swap(other.block_);
}

} // namespace courier::hub::serialisation
