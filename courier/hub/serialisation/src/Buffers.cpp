// SPDX-License-Identifier: Apache-2.0
#include <courier/hub/serialisation/Buffers.h>

#include <algorithm>
#include <stdexcept>

namespace courier::hub::serialisation {

static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte>>);
static_assert(std::contiguous_iterator<ByteBufferIterator<std::byte const>>);

namespace {

using detail::longest;
using detail::throwTooLong;

std::size_t sum(std::size_t a, std::size_t b) {
    if (a > longest || b > longest - a) {
        throwTooLong();
    }
    return a + b;
}

// Half as much again, so that later appends of similar size need no new storage.
std::size_t growthTarget(std::size_t n) {
    if (n > longest) {
        throwTooLong();
    }
    return sum(n, n / 2);
}

std::vector<std::byte> copyOf(ByteBufferView const& view) {
    if (view.data() == nullptr && !view.empty()) {
        detail::throwIncompatibleIterators();
    }
    if (view.size() > longest) {
        throwTooLong();
    }
    return {view.data(), view.data() + view.size()};
}

} // namespace

namespace detail {

void throwOutOfRange(char const* message) { throw std::out_of_range(message); }

void throwIncompatibleIterators() {
    throw std::runtime_error("Attempting to take difference between incompatible MessageIterators");
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

ByteBufferView ByteBufferView::makeView(std::size_t offset, std::size_t count) const {
    if (offset == length_ && count == 0) {
        return {};
    }
    if (offset > length_ || count > length_ - offset) {
        detail::throwOutOfRange("Invalid range requested");
    }
    return {start_ == nullptr ? nullptr : start_ + offset, count == 0 ? length_ - offset : count};
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
    return append(ByteBufferView(bytes.data(), bytes.size()));
}

ByteBuffer ByteBufferView::append(ByteBufferView view) {
    ByteBuffer result(*this);
    result.append(view);
    return result;
}

ByteBufferView::operator ByteBuffer() const { return ByteBuffer(copyOf(*this)); }

// ByteBuffer

ByteBuffer::ByteBuffer(std::size_t n) : ByteBuffer() {
    if (n > longest) {
        throwTooLong();
    }
    owned_.resize(n);
}

ByteBuffer::ByteBuffer(ByteBufferView const& view) : owned_(copyOf(view)) {}

void ByteBuffer::clear() noexcept {
    releaseBlock();
    owned_.clear();
}

ByteBuffer& ByteBuffer::append(ByteBuffer const& other) {
    return append(ByteBufferView(other.data(), other.size()));
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
            // This buffer grows as the pieces come in; as an element it counts as it was.
            put(other.base(), &other == this ? held : other.size());
        }
    });
    return *this;
}

ByteBuffer& ByteBuffer::append(std::vector<std::byte>&& bytes) {
    return append(ByteBufferView(bytes.data(), bytes.size()));
}

void ByteBuffer::appendBeyondRoom(ByteBufferView view) {
    if (view.empty()) {
        return;
    }
    if (view.data() == nullptr) {
        appendPieces(view.size(), [](auto const&) {});
        detail::throwIncompatibleIterators();
    }
    if (start_ == nullptr && !isOwn(view.data())) { // as below, without a second vector
        owned_.reserve(growthTarget(sum(owned_.size(), view.size())));
        owned_.insert(owned_.end(), view.data(), view.data() + view.size());
        return;
    }
    appendPieces(view.size(), [&](auto const& put) { put(view.data(), view.size()); });
}

void ByteBuffer::push_back(std::byte const& b) {
    std::byte const value = b; // b may lie in the block that goes
    if (start_ != nullptr) {
        becomeVector(copyOf(ByteBufferView(start_, external_.size)));
    }
    owned_.push_back(value);
}

void ByteBuffer::resize(std::size_t n) {
    if (start_ == nullptr && n <= owned_.capacity()) {
        owned_.resize(n);
        return;
    }
    std::vector<std::byte> bytes = copyWithRoomFor(n);
    bytes.resize(n);
    becomeVector(std::move(bytes));
}

void ByteBuffer::trimFront(std::size_t n) {
    if (n > size()) {
        detail::throwOutOfRange("Requested to remove more bytes than exist");
    }
    if (start_ != nullptr) {
        start_ += n;
        external_.size -= n;
    } else {
        owned_.erase(owned_.begin(), owned_.begin() + static_cast<std::ptrdiff_t>(n));
    }
}

ByteBuffer ByteBuffer::clone() const { return ByteBuffer(ByteBufferView(base(), size())); }

ByteBufferView ByteBuffer::makeView(std::size_t offset, std::size_t count) const {
    return ByteBufferView(base(), size()).makeView(offset, count);
}

// The first n bytes, or all there are, in a vector whose capacity is the growth target of n.
std::vector<std::byte> ByteBuffer::copyWithRoomFor(std::size_t n) const {
    std::vector<std::byte> copy;
    copy.reserve(growthTarget(n));
    copy.insert(copy.end(), base(), base() + std::min(n, size()));
    return copy;
}

void ByteBuffer::becomeVector(std::vector<std::byte>&& bytes) noexcept {
    releaseBlock();
    owned_ = std::move(bytes);
}

// Adds `added` bytes, which forEachPiece hands piece by piece to the function that it is given.
// Pieces may lie in this buffer's own bytes: new storage replaces the old one once all are read.
template <class ForEachPiece>
void ByteBuffer::appendPieces(std::size_t added, ForEachPiece forEachPiece) {
    std::size_t const needed = sum(size(), added);
    if (start_ == nullptr && needed <= owned_.capacity()) {
        forEachPiece([this](std::byte const* piece, std::size_t count) {
            if (!isOwn(piece)) {
                owned_.insert(owned_.end(), piece, piece + count);
                return;
            }
            std::size_t const held = owned_.size(); // a vector refuses its own bytes in insert()
            owned_.resize(held + count);
            std::copy_n(piece, count, owned_.data() + held);
        });
    } else {
        std::vector<std::byte> bytes = copyWithRoomFor(needed);
        forEachPiece([&bytes](std::byte const* piece, std::size_t count) {
            bytes.insert(bytes.end(), piece, piece + count);
        });
        becomeVector(std::move(bytes));
    }
}

} // namespace courier::hub::serialisation
