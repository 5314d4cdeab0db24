// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Buffers.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>

namespace courier::hub::serialisation {

static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte>>);
static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte const>>);

namespace {

using detail::longest;
using detail::throwTooLong;

std::size_t checkedLength(std::size_t n) {
    if (n > longest) {
        throwTooLong();
    }
    return n;
}

std::size_t sum(std::size_t a, std::size_t b) {
    if (b > longest - checkedLength(a)) {
        throwTooLong();
    }
    return a + b;
}

// Half as much again, so that later appends of similar size need no new memory.
std::size_t growthTarget(std::size_t n) { return sum(n, n / 2); }

// A copy of the viewed bytes with this capacity.
detail::GrowingBytes copyOf(ByteBufferView view, std::size_t capacity) {
    detail::GrowingBytes bytes(view.data(), view.size());
    bytes.reallocate(capacity);
    return bytes;
}

detail::GrowingBytes copyOf(ByteBufferView view) {
    if (view.data() == nullptr && !view.empty()) {
        detail::throwIncompatibleIterators();
    }
    return copyOf(view, checkedLength(view.size()));
}

} // namespace

namespace detail {

void throwOutOfRange(char const* message) { throw std::out_of_range(message); }

void throwIncompatibleIterators() {
    throw std::runtime_error("Attempting to take difference between incompatible MessageIterators");
}

void endOutOfBounds(std::size_t i, std::size_t size) noexcept {
    std::fprintf(stderr, "courier::hub::serialisation: access to byte %zu of %zu\n", i, size);
    std::abort();
}

void throwTooLong() { throw std::length_error("vector too long"); }

void throwBlockWithoutDeleter() {
    throw std::invalid_argument("ByteBuffer needs a deleter for its block");
}

} // namespace detail

// ByteBufferView

void ByteBufferView::trimFront(std::size_t n) {
    if (n > length_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    length_ -= n;
    start_ = start_ == nullptr || length_ == 0 ? nullptr : start_ + n;
}

void ByteBufferView::trimBack(std::size_t n) {
    if (n > length_) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    length_ -= n;
    start_ = length_ == 0 ? nullptr : start_;
}

ByteBufferView ByteBufferView::last(std::size_t n) const {
    return subview(n > length_ ? n : length_ - n, n); // n > length_: out of range, so it throws
}

ByteBufferView ByteBufferView::subview(std::size_t offset) const {
    return subview(offset, offset > length_ ? 0 : length_ - offset);
}

ByteBufferView ByteBufferView::subview(std::size_t offset, std::size_t count) const {
    if (offset > length_ || count > length_ - offset) {
        detail::throwOutOfRange("Invalid range requested");
    }
    return {start_ == nullptr || count == 0 ? nullptr : start_ + offset, count};
}

ByteBufferView ByteBufferView::makeView(std::size_t offset, std::size_t count) const {
    return count == 0 ? subview(offset) : subview(offset, count);
}

ByteBuffer ByteBufferView::append(ByteBuffer&& other) { return append(std::as_const(other)); }

ByteBuffer ByteBufferView::append(ByteBuffer const& other) {
    ByteBuffer result(*this);
    result.append(other);
    return result;
}

ByteBuffer ByteBufferView::append(std::vector<ByteBuffer>&& others) {
    return append(std::as_const(others));
}

ByteBuffer ByteBufferView::append(std::vector<ByteBuffer> const& others) {
    ByteBuffer result(*this);
    result.append(others);
    return result;
}

ByteBuffer ByteBufferView::append(std::vector<std::byte>&& bytes) {
    return append(ByteBufferView(bytes));
}

ByteBuffer ByteBufferView::append(std::vector<std::byte> const& bytes) {
    return append(ByteBufferView(bytes));
}

ByteBuffer ByteBufferView::append(ByteBufferView view) {
    ByteBuffer result(*this);
    result.append(view);
    return result;
}

ByteBufferView::operator ByteBuffer() const { return ByteBuffer(*this); }

// ByteBuffer

ByteBuffer::ByteBuffer(std::size_t n)
    : bytes_(detail::GrowingBytes::zeroed(n, checkedLength(n))), deleter_() {}

ByteBuffer::ByteBuffer(ByteBufferView const& view) : bytes_(copyOf(view)), deleter_() {}

void ByteBuffer::clear() noexcept {
    if (holdsVector()) {
        resizeVector(0);
    } else {
        releaseBlock();
        bytes_.trimBack(size());
    }
}

ByteBuffer& ByteBuffer::append(std::vector<ByteBuffer> const& others) {
    if (others.empty()) {
        return *this;
    }
    std::size_t const held = size();
    std::size_t added = 0;
    for (ByteBuffer const& other : others) {
        added = sum(added, other.size());
    }
    appendPieces(added, [&](auto const& put) {
        for (ByteBuffer const& other : others) {
            // If an element is this buffer, which grows meanwhile, its former size counts.
            put(other.bytes_.data(), &other == this ? held : other.size());
        }
    });
    return *this;
}

void ByteBuffer::appendBeyondRoom(ByteBufferView view) {
    if (view.empty()) {
        return;
    }
    std::size_t const needed = sum(size(), view.size());
    if (view.data() == nullptr) {
        if (isExternal() || needed > capacity()) {
            setCapacity(growthTarget(needed), size());
        }
        detail::throwIncompatibleIterators();
    }
    std::less_equal<> const notAfter;
    bool const isOwn =
        notAfter(bytes_.data(), view.data()) && notAfter(view.data(), bytes_.data() + size());
    if (isOwn || bytes_.isBorrowed()) { // trimmed bytes of a block stay valid until its release
        appendPieces(view.size(), [&](auto const& put) { put(view.data(), view.size()); });
    } else { // std::realloc may extend the memory in place
        setCapacity(growthTarget(needed), size());
        bytes_.append(view.data(), view.size());
    }
}

void ByteBuffer::pushBackBeyondRoom(std::byte b) {
    std::size_t const needed = sum(size(), 1);
    if (holdsVector() && needed <= vector_.capacity()) {
        resizeVector(needed);
        bytes_.data()[needed - 1] = b;
        return;
    }
    // Doubles, as std::vector does.
    setCapacity(std::max(needed, std::min(2 * size(), longest)), size());
    bytes_.append(&b, 1);
}

void ByteBuffer::reserve(std::size_t n) {
    if (isExternal() || n > capacity()) {
        setCapacity(checkedLength(std::max(n, size())), size());
    }
}

void ByteBuffer::resize(std::size_t n) {
    std::size_t const kept = std::min(n, size());
    if (isExternal() || n > capacity()) {
        std::size_t const target = growthTarget(n);
        if (n - kept > kept) { // mostly zeros: std::calloc need not write them
            detail::GrowingBytes bytes = detail::GrowingBytes::zeroed(n, target);
            if (kept != 0) {
                std::memcpy(bytes.data(), bytes_.data(), kept);
            }
            become(std::move(bytes));
            return;
        }
        setCapacity(target, kept);
    }
    if (holdsVector()) {
        resizeVector(n);
        return;
    }
    bytes_.trimBack(size() - kept);
    if (n > kept) {
        std::memset(bytes_.extend(n - kept), 0, n - kept);
    }
}

void ByteBuffer::trimFront(std::size_t n) {
    if (n > size()) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (holdsVector()) {
        vector_.erase(vector_.begin(), vector_.begin() + static_cast<std::ptrdiff_t>(n));
        resizeVector(vector_.size());
    } else {
        bytes_.trimFront(n);
    }
}

void ByteBuffer::trimBack(std::size_t n) {
    if (n > size()) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (holdsVector()) {
        resizeVector(size() - n);
    } else {
        bytes_.trimBack(n);
    }
}

// What the parts of a split buffer share: the buffer as it was, freed with the last of its shares.
struct ByteBuffer::Whole {
    ByteBuffer buffer;
    std::atomic<std::size_t> shares;
};

// The deleter of a part, small enough for a std::function to store it without an allocation. A part
// that is split has shares in stock, so that the common count need not change for each split.
struct ByteBuffer::ReleasePart {
    Whole* whole;
    std::size_t shares;
    void operator()(void*) const noexcept {
        // Releases this thread's use of the bytes; the last one acquires all of them.
        if (whole->shares.fetch_sub(shares, std::memory_order_acq_rel) == shares) {
            delete whole;
        }
    }
};

// A share of what owns the bytes, which is on the heap then. Precondition: there are bytes.
ByteBuffer::ReleasePart ByteBuffer::share() {
    auto* mine = isExternal() ? deleter_.target<ReleasePart>() : nullptr;
    if (mine == nullptr || mine->shares == 1) {
        mine = &restock(mine);
    }
    --mine->shares;
    return {mine->whole, 1};
}

// Takes more shares into stock. Without any yet, moves what owns the bytes to the heap.
ByteBuffer::ReleasePart& ByteBuffer::restock(ReleasePart* mine) {
    constexpr std::size_t added = 65536;
    if (mine == nullptr) {
        auto whole = std::make_unique<Whole>();
        whole->shares = added;
        ByteBuffer all(bytes_.data(), size(), ReleasePart{whole.get(), added});
        whole.release()->buffer = std::move(*this);
        *this = std::move(all);
        return *deleter_.target<ReleasePart>();
    }
    mine->whole->shares.fetch_add(added, std::memory_order_relaxed);
    mine->shares += added;
    return *mine;
}

// A part of the bytes, all of which this buffer keeps. Precondition: it is within them, and not
// empty.
ByteBuffer ByteBuffer::sharePart(std::size_t offset, std::size_t count) {
    ReleasePart const part = share();
    return ByteBuffer(bytes_.data() + offset, count, part);
}

ByteBuffer ByteBuffer::splitFront(std::size_t n) {
    if (n > size()) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (n == 0) {
        return ByteBuffer();
    }
    if (n == size()) {
        return std::move(*this);
    }
    std::byte* const first = bytes_.data();
    ReleasePart const part = share();
    bytes_.trimFront(n);
    return ByteBuffer(first, n, part);
}

// Preconditions: holdsVector(), and n is at most its capacity.
void ByteBuffer::resizeVector(std::size_t n) {
    vector_.resize(n);
    bytes_ = detail::GrowingBytes(vector_.data(), n);
}

// Keeps the first `kept` bytes, in owned memory of exactly this capacity. Precondition: if the
// bytes are owned already, kept == size().
void ByteBuffer::setCapacity(std::size_t capacity, std::size_t kept) {
    if (bytes_.isBorrowed()) {
        become(copyOf(ByteBufferView(bytes_.data(), kept), capacity));
    } else {
        bytes_.reallocate(capacity);
    }
}

// Replaces the content by owned bytes. Releases the old block last, so that its deleter sees the
// new content.
void ByteBuffer::become(detail::GrowingBytes bytes) noexcept {
    bool const heldVector = holdsVector();
    bytes_ = std::move(bytes);
    if (heldVector) {
        std::destroy_at(&vector_);
        std::construct_at(&deleter_);
    } else if (isExternal()) {
        deleter_(std::exchange(block_, nullptr));
    }
}

// Adds `added` bytes. forEachPiece calls its argument with each piece. A piece may be in this
// buffer's own bytes: new memory replaces the old only after all pieces have been read.
template <class ForEachPiece>
void ByteBuffer::appendPieces(std::size_t added, ForEachPiece forEachPiece) {
    auto const put = [](detail::GrowingBytes& to) {
        return [&to](std::byte const* piece, std::size_t count) {
            if (count != 0) {
                to.append(piece, count);
            }
        };
    };
    std::size_t const needed = sum(size(), added);
    if (isExternal() || needed > capacity()) {
        detail::GrowingBytes larger = copyOf(wholeView(), growthTarget(needed));
        forEachPiece(put(larger));
        become(std::move(larger));
    } else if (holdsVector()) {
        detail::GrowingBytes end(bytes_.data(), size());
        resizeVector(needed);
        forEachPiece(put(end));
    } else {
        forEachPiece(put(bytes_));
    }
}

} // namespace courier::hub::serialisation
