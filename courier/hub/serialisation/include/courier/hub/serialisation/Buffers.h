// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_BUFFERS_H
#define COURIER_HUB_SERIALISATION_BUFFERS_H

#include <courier/hub/serialisation/ByteBufferIterator.h>
#include <courier/hub/serialisation/ByteBufferView.h>
#include <courier/hub/serialisation/Export.h>
#include <courier/hub/serialisation/detail/GrowingBytes.h>

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <iterator>
#include <memory>
#include <span>
#include <type_traits>
#include <utility>
#include <vector>

/// Buffers, streams that read and write them in place, the catalogue of serialisers, the fan-out.
namespace courier::hub::serialisation {

static_assert(sizeof(std::size_t) == 8, "courier::hub::serialisation needs a 64-bit std::size_t");

namespace detail {
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwBlockWithoutDeleter();
[[noreturn]] COURIER_HUB_SERIALISATION_EXPORT void throwTooLong();

// The largest size. Checked before any addition, so that no sum wraps.
inline constexpr std::size_t longest = PTRDIFF_MAX;
} // namespace detail

/// A sequence of bytes with exactly one owner, kept in one of two forms:
///
///     vector form                            external form
///     data ──▶ ┌──────────────┬───────┐      block ──▶ ┌─────────┬────────────────────┬───┐
///              │ bytes        │ spare │                │ trimmed │ bytes              │ … │
///              └──────────────┴───────┘                └─────────┴────────────────────┴───┘
///              ◀─── size ────▶                data ──────────────▶◀─────── size ──────▶
///              ◀───── capacity ──────▶
///
/// In vector form the buffer allocated the bytes itself, or took over a std::vector, which it keeps
/// until it needs more than that vector's capacity. In external form it adopted a block allocated
/// elsewhere, without copying it, together with its deleter: the routine that frees it.
///
/// Use it to own bytes and to pass them on. To lend bytes for the duration of a call, use a
/// ByteBufferView. To keep an object alive for exactly as long as its bytes, use adopt().
///
///     ByteBuffer good({std::malloc(n), [](void* p) { std::free(p); }}, n);
///     ByteBuffer bad({borrowed, [](void*) {}}, n);  // nothing keeps `borrowed` alive: use a view
///
/// Ownership: the deleter is called exactly once, with the address that was passed in, when the
/// block is released: by clear(), push_back(), reserve(), resize(), the append() of an argument
/// that is not empty, a move assignment into the buffer, or the destructor. Parts that share a
/// block each release their share of it, and the last one the block. The deleter runs on the thread
/// that releases the block. It must not be empty and must not throw. The deleter object, with what
/// it captured, outlives its block: until the buffer is assigned to or destroyed. A move passes it
/// on.
///
/// Move-only; clone() copies. A moved-from buffer is empty and may be used again.
///
/// Unless a comment says otherwise, moves, clear(), the destructor and the queries do not throw,
/// take constant time (apart from freeing memory) and allocate nothing. Other operations give the
/// strong guarantee for the content. Thread-compatible: const operations may run on several threads
/// while none changes the buffer. To copy bytes out, use std::span<std::byte const>(buffer),
/// because some standard libraries make one block copy only for the iterators that they know.
///
/// In hardened mode an operator[] beyond the end, of a buffer or a view, and the dereference of a
/// null iterator end the process with a line on standard error that names the index and the size.
/// It is on where the program defines COURIER_HARDENED or _GLIBCXX_ASSERTIONS, or uses a hardening
/// mode of libc++. It changes no ABI. Otherwise these accesses are not checked and cost nothing.
class COURIER_HUB_SERIALISATION_EXPORT ByteBuffer {
public:
    /// As in standard containers.
    using value_type = std::byte;
    using size_type = std::size_t;
    using difference_type = std::ptrdiff_t;
    using reference = std::byte&;
    using const_reference = std::byte const&;
    using iterator = ByteBufferIterator<std::byte>;
    using const_iterator = ByteBufferIterator<std::byte const>;

    /// The routine that frees a block.
    using Deleter = std::function<void(void*)>;
    /// A block together with the routine that frees it.
    using Block = std::unique_ptr<void, Deleter>;

    /// An empty buffer. Allocates nothing.
    ByteBuffer() noexcept : deleter_() {}

    /// n bytes of value 0. Many of them come from the system as zeros and are not written. Throws
    /// std::length_error "vector too long" above 2^63 - 1, std::bad_alloc.
    explicit ByteBuffer(std::size_t n);

    /// Takes the vector over without copying its bytes.
    explicit ByteBuffer(std::vector<std::byte> bytes) noexcept
        : bytes_(bytes.data(), bytes.size()) {
        if (bytes_.isBorrowed()) {
            std::construct_at(&vector_, std::move(bytes));
        } else {
            std::construct_at(&deleter_);
        }
    }

    /// Adopts the first n bytes of a block without copying them. n is not checked. A null block
    /// gives an empty buffer, whatever n is. Throws std::invalid_argument if a block has an empty
    /// deleter; the block is then not freed.
    ByteBuffer(Block block, std::size_t n)
        : bytes_(static_cast<std::byte*>(block.get()), block != nullptr ? n : 0) {
        if (block != nullptr && !block.get_deleter()) {
            static_cast<void>(block.release()); // without a deleter its destructor terminates
            detail::throwBlockWithoutDeleter();
        }
        block_ = block.release();
        std::construct_at(&deleter_, takeDeleter(block.get_deleter()));
    }

    /// A copy of the viewed bytes, allocated to the exact size. Throws std::runtime_error
    /// "Attempting to take difference between incompatible MessageIterators" for a null view with a
    /// length, std::length_error "vector too long" above 2^63 - 1 bytes, std::bad_alloc.
    explicit ByteBuffer(ByteBufferView const& view);

    // A pointer has no length, and a literal a 0 at its end. To copy its bytes, use ByteBufferView.
    template <std::same_as<char> WrapInStdStringView>
    explicit ByteBuffer(WrapInStdStringView const*) = delete;

    /// Takes over the content of the other buffer, which is then empty. The bytes keep their
    /// address.
    ByteBuffer(ByteBuffer&& other) noexcept
        : ByteBuffer(detail::GrowingBytes(std::move(other.bytes_)),
                     std::exchange(other.block_, nullptr), other) {}

    /// The same. Frees what this buffer held, a block by its own deleter, before it returns.
    ByteBuffer& operator=(ByteBuffer&& other) noexcept {
        if (bytes_.data() != nullptr || deleter_) {
            // The old deleter may own `other` or inspect this buffer: it runs last.
            ByteBuffer taken(std::move(other));
            ByteBuffer const former(std::move(*this));
            take(taken);
        } else if (this != &other) {
            take(other);
        }
        return *this;
    }

    ~ByteBuffer() {
        if (holdsVector()) {
            std::destroy_at(&vector_);
        } else {
            releaseBlock();
            std::destroy_at(&deleter_);
        }
    }

    /// The number of bytes.
    [[nodiscard]] std::size_t size() const noexcept { return bytes_.size(); }
    /// True when size() is 0.
    [[nodiscard]] bool empty() const noexcept { return size() == 0; }

    /// The size up to which no allocation is needed, as in std::vector. 0 in external form.
    [[nodiscard]] std::size_t capacity() const noexcept {
        return holdsVector() ? vector_.capacity() : bytes_.capacity();
    }

    /// A pointer to the first byte; null when empty.
    [[nodiscard]] std::byte* data() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : bytes_.data();
    }
    [[nodiscard]] std::byte const* data() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return empty() ? nullptr : bytes_.data();
    }

    /// Byte i. Precondition: i < size(), checked in hardened mode only.
    [[nodiscard]] std::byte& operator[](std::size_t i) noexcept {
        detail::checkAccess(i, size());
        return bytes_.data()[i];
    }
    [[nodiscard]] std::byte const& operator[](std::size_t i) const noexcept {
        detail::checkAccess(i, size());
        return bytes_.data()[i];
    }

    /// Byte i. Throws std::out_of_range "Attempt to access position beyond the end of the
    /// ByteBuffer" when i is not below size().
    std::byte& at(std::size_t i) { return bytes_.data()[checked(i)]; }
    std::byte const& at(std::size_t i) const { return bytes_.data()[checked(i)]; }

    /// The first byte. Throws std::out_of_range "ByteBuffer is empty".
    std::byte& front() { return *nonEmpty(); }
    std::byte const& front() const { return *nonEmpty(); }

    /// Iterators. Invalidated by append(), push_back(), reserve(), resize(), clear(), trimFront()
    /// in vector form, a move assignment into this buffer, and its destruction; by trimBack() at
    /// and behind the new end. A move from this buffer leaves them valid, for the other one. The
    /// overloads of cbegin() and cend() that are not const are part of the interface.
    [[nodiscard]] iterator begin() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data(), !isExternal()};
    }
    [[nodiscard]] const_iterator begin() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data(), !isExternal()};
    }
    [[nodiscard]] const_iterator cbegin() noexcept { return std::as_const(*this).begin(); }
    [[nodiscard]] const_iterator cbegin() const noexcept { return begin(); }
    [[nodiscard]] iterator end() noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data() + size(), !isExternal()};
    }
    [[nodiscard]] const_iterator end() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return {bytes_.data() + size(), !isExternal()};
    }
    [[nodiscard]] const_iterator cend() noexcept { return std::as_const(*this).end(); }
    [[nodiscard]] const_iterator cend() const noexcept { return end(); }

    /// True when both have the same bytes, in whichever form; one of them may be a view. Linear:
    /// one block comparison.
    [[nodiscard]] friend bool operator==(ByteBuffer const& a, ByteBuffer const& b) noexcept {
        return ByteBufferView(a) == ByteBufferView(b);
    }

    /// Removes all bytes. Releases the block, if there is one; in vector form the capacity stays.
    void clear() noexcept;

    /// Adds a copy of the argument's bytes at the end; for a vector of buffers, of the bytes of
    /// each element in turn. The argument does not change, not even an rvalue: that overload is
    /// part of the interface. Appending nothing changes nothing. Anything else, even a list of
    /// empty buffers, converts to vector form. This buffer, or a view of its bytes, may be the
    /// argument or an element of it: its bytes are those from before the call.
    ///
    /// Amortised linear in the bytes added. If the capacity is too small, one allocation makes it
    /// half as much again as the new size; in external form this copies the bytes of the block.
    /// Throws std::length_error "vector too long" when that capacity would exceed 2^63 - 1,
    /// std::bad_alloc, and for a null view with a length std::runtime_error "Attempting to take
    /// difference between incompatible MessageIterators" (the buffer is then in vector form).
    ByteBuffer& append(ByteBuffer&& other) { return append(std::as_const(other)); }
    ByteBuffer& append(ByteBuffer const& other) { return append(ByteBufferView(other)); }
    ByteBuffer& append(std::vector<ByteBuffer>&& others) { return append(std::as_const(others)); }
    ByteBuffer& append(std::vector<ByteBuffer> const& others);
    ByteBuffer& append(std::vector<std::byte>&& bytes) { return append(std::as_const(bytes)); }
    ByteBuffer& append(std::vector<std::byte> const& bytes) {
        return append(ByteBufferView(bytes));
    }
    ByteBuffer& append(ByteBufferView view) {
        if (view.size() - 1 < bytes_.room() && view.data() != nullptr) { // 0 - 1 wraps
            bytes_.append(view.data(), view.size());
        } else {
            appendBeyondRoom(view);
        }
        return *this;
    }

    template <std::same_as<char> WrapInStdStringView>
    ByteBuffer& append(WrapInStdStringView const*) = delete;

    /// Adds one byte at the end. The buffer is then in vector form. Amortised constant, except that
    /// in external form it copies the bytes of the block. Throws std::length_error "vector too
    /// long", std::bad_alloc.
    void push_back(std::byte&& b) { push_back(std::as_const(b)); }
    void push_back(std::byte const& b) {
        if (bytes_.room() != 0) {
            bytes_.append(&b, 1);
        } else {
            pushBackBeyondRoom(b);
        }
    }

    /// Makes the capacity at least n: exactly n if it is too small, and in external form exactly n
    /// or size(), whichever is more. The content stays. The buffer is then in vector form. Throws
    /// std::length_error "vector too long" above 2^63 - 1, std::bad_alloc.
    void reserve(std::size_t n);

    /// Removes bytes at the end or adds bytes of value 0. The buffer is then in vector form. If the
    /// capacity is too small, and in external form, one allocation makes it n and half as much
    /// again. Linear in the bytes added or copied. Throws std::length_error "vector too long" when
    /// that capacity would exceed 2^63 - 1, std::bad_alloc.
    void resize(std::size_t n);

    /// Removes the first n bytes. The form and the capacity stay. In external form no byte moves:
    /// constant time. In vector form the remaining bytes move once. Throws std::out_of_range
    /// "Requested to remove more bytes than exist" when n is above size().
    void trimFront(std::size_t n);
    /// Removes the last n bytes. The form and the capacity stay, and no byte moves. Throws as
    /// trimFront() does.
    void trimBack(std::size_t n);

    /// Moves the first n bytes into a buffer of their own; this one keeps the rest. No byte is
    /// copied, and each keeps its address: the two share what owns the bytes (a block, a vector,
    /// memory of this buffer), and the last one releases it.
    ///
    ///     while (std::optional<std::size_t> const length = lengthOfMessage(received)) {
    ///         handle(received.splitFront(*length)); // on any thread
    ///     }
    ///
    /// Both are then in external form, independent, and may be split again. The count of the shares
    /// is thread-safe, so each may be used and destroyed on a thread of its own. A small part keeps
    /// all of the memory; clone() it to keep its bytes alone.
    ///
    /// Constant time. The first split allocates once, further ones of either part nothing. Nothing
    /// is shared or allocated if n is 0, or size(), which moves the whole buffer into the result.
    /// Throws std::out_of_range "Requested to remove more bytes than exist" when n is above size(),
    /// std::bad_alloc.
    [[nodiscard]] ByteBuffer splitFront(std::size_t n);

    /// A new buffer in vector form with a copy of the bytes, allocated to the exact size. Linear.
    /// Throws std::length_error "vector too long", std::bad_alloc.
    [[nodiscard]] ByteBuffer clone() const { return ByteBuffer(wholeView()); }

    /// A view of all bytes. Valid as long as an iterator would be.
    [[nodiscard]] operator ByteBufferView() const noexcept COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView();
    }

    /// A view of a part: the first n bytes, the last n, those from `offset` to the end, or `count`
    /// of these. As in std::span, a count of 0 gives no bytes. The view is valid as long as an
    /// iterator would be. Throws std::out_of_range "Invalid range requested" when the part exceeds
    /// the buffer.
    [[nodiscard]] ByteBufferView
    first(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().first(n);
    }
    [[nodiscard]] ByteBufferView last(std::size_t n) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().last(n);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().subview(offset);
    }
    [[nodiscard]] ByteBufferView
    subview(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().subview(offset, count);
    }

    /// As subview(offset, count), except that a count of 0 means up to the end. If the count is a
    /// length that may be 0, use subview(). Both overloads are part of the interface.
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().makeView(offset, count);
    }
    [[nodiscard]] ByteBufferView
    makeView(std::size_t offset, std::size_t count) const COURIER_HUB_SERIALISATION_LIFETIMEBOUND {
        return wholeView().makeView(offset, count);
    }

private:
    friend class ByteBufferIStreambuf; // shares its bytes with the parts that are taken

    ByteBuffer(detail::GrowingBytes bytes, void* block, ByteBuffer& other) noexcept
        : block_(block), bytes_(std::move(bytes)) {
        takeOwner(other);
    }

    struct Whole;
    struct ReleasePart;
    template <class Release> ByteBuffer(std::byte* block, std::size_t size, Release const& release)
        : block_(block), bytes_(block, size), deleter_(release) {}

    [[nodiscard]] bool isExternal() const noexcept { return block_ != nullptr; }
    [[nodiscard]] bool holdsVector() const noexcept { return !isExternal() && bytes_.isBorrowed(); }

    [[nodiscard]] ByteBufferView wholeView() const noexcept {
        return {bytes_.data(), bytes_.size()};
    }
    [[nodiscard]] std::size_t checked(std::size_t i) const {
        if (i >= size()) {
            detail::throwOutOfRange("Attempt to access position beyond the end of the ByteBuffer");
        }
        return i;
    }
    [[nodiscard]] std::byte* nonEmpty() const {
        if (empty()) {
            detail::throwOutOfRange("ByteBuffer is empty");
        }
        return bytes_.data();
    }

    // A moved-from std::function may still hold its target, so it is reset.
    [[nodiscard]] static Deleter takeDeleter(Deleter& from) noexcept {
        Deleter taken = std::move(from);
        from = nullptr;
        return taken;
    }

    // Makes the buffer empty before the deleter runs. Precondition: !holdsVector().
    void releaseBlock() noexcept {
        if (block_ != nullptr) {
            bytes_.forget();
            deleter_(std::exchange(block_, nullptr));
        }
    }

    // Preconditions: block_ and bytes_ have been taken over already, and neither member of this
    // buffer's union is alive.
    void takeOwner(ByteBuffer& other) noexcept {
        if (holdsVector()) {
            std::construct_at(&vector_, std::move(other.vector_));
            std::destroy_at(&other.vector_);
            std::construct_at(&other.deleter_);
        } else {
            std::construct_at(&deleter_, takeDeleter(other.deleter_));
        }
    }

    // Preconditions: this buffer is as default-constructed, and not `other`.
    void take(ByteBuffer& other) noexcept {
        block_ = std::exchange(other.block_, nullptr);
        bytes_.take(other.bytes_);
        std::destroy_at(&deleter_);
        takeOwner(other);
    }

    [[nodiscard]] ReleasePart share();
    [[nodiscard]] ReleasePart& restock(ReleasePart* mine);
    [[nodiscard]] ByteBuffer sharePart(std::size_t offset, std::size_t count);
    void appendBeyondRoom(ByteBufferView view);
    void pushBackBeyondRoom(std::byte b);
    void resizeVector(std::size_t n);
    void setCapacity(std::size_t capacity, std::size_t kept);
    void become(detail::GrowingBytes bytes) noexcept;
    template <class ForEachPiece> void appendPieces(std::size_t added, ForEachPiece forEachPiece);

    void* block_ = nullptr;      // as it was passed in; null in vector form
    detail::GrowingBytes bytes_; // the content in either form; borrowed from block_ or vector_
    union {
        Deleter deleter_;               // alive unless vector_ is
        std::vector<std::byte> vector_; // alive in vector form while bytes_ borrows its bytes
    };
};

static_assert(std::is_nothrow_move_constructible_v<ByteBuffer>);
static_assert(std::is_nothrow_move_assignable_v<ByteBuffer>);
static_assert(!std::is_copy_constructible_v<ByteBuffer> && !std::is_copy_assignable_v<ByteBuffer>);

namespace detail {
template <class Owner>
[[nodiscard]] ByteBuffer adoptHeld(ByteBufferView bytes, std::unique_ptr<Owner> owner) {
    if (bytes.data() == nullptr) {
        return ByteBuffer();
    }
    ByteBuffer::Deleter destroyOwner = [held = owner.get()](void*) { delete held; };
    ByteBuffer::Block block(bytes.data(), std::move(destroyOwner));
    static_cast<void>(owner.release());
    return ByteBuffer(std::move(block), bytes.size());
}

// What can keep bytes alive. A pointer, a std::span or a std::string_view cannot.
template <class Owner>
concept KeepsBytes =
    std::is_object_v<Owner> && !std::is_pointer_v<Owner> && !std::is_array_v<Owner> &&
    !std::ranges::enable_borrowed_range<Owner> && !std::same_as<Owner, std::nullptr_t>;

// The same for what the caller passes, which may be a reference.
template <class Owner>
concept Adoptable = KeepsBytes<std::remove_cvref_t<Owner>>;
template <class Owner>
concept AdoptableRange = Adoptable<Owner> && OwningByteRange<std::remove_cvref_t<Owner>>;
} // namespace detail

/// A buffer in external form over the bytes of an object that owns them, such as a std::string or a
/// std::vector of characters. The owner is moved into the buffer, or copied if it is an lvalue:
///
///     ByteBuffer text = adopt(std::move(string));
///
/// The owner is destroyed when the block is released, on the thread that releases it. Its
/// destructor must not throw. An owner without bytes gives an empty buffer. One allocation, for the
/// owner. Throws std::bad_alloc, and what moving the owner throws; the caller then keeps the owner.
template <detail::AdoptableRange Owner> [[nodiscard]] ByteBuffer adopt(Owner&& owner) {
    auto held = std::make_unique<std::remove_cvref_t<Owner>>(std::forward<Owner>(owner));
    ByteBufferView const bytes(*held); // after the move: a short string's bytes move with it
    return detail::adoptHeld(bytes, std::move(held));
}

// Nothing keeps the bytes behind a pointer alive.
template <std::same_as<char> AdoptStdStringInstead>
ByteBuffer adopt(AdoptStdStringInstead const*) = delete;

/// The same over bytes that any object keeps alive: a std::shared_ptr, a mapping, a message. The
/// bytes must keep their address when the owner is moved; those of a short std::string do not.
///
///     ByteBuffer bytes = adopt(ByteBufferView(file.data(), file.size()), std::move(file));
///
/// Also throws std::runtime_error "Attempting to take difference between incompatible
/// MessageIterators" for a null view with a length.
template <detail::Adoptable Owner>
[[nodiscard]] ByteBuffer adopt(ByteBufferView bytes, Owner&& owner) {
    if (bytes.data() == nullptr && !bytes.empty()) {
        detail::throwIncompatibleIterators();
    }
    return detail::adoptHeld(
        bytes, std::make_unique<std::remove_cvref_t<Owner>>(std::forward<Owner>(owner)));
}

} // namespace courier::hub::serialisation

#endif
