// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_HUB_SERIALISATION_DETAIL_GROWN_BYTES_H
#define COURIER_HUB_SERIALISATION_DETAIL_GROWN_BYTES_H

#include <courier/hub/serialisation/Export.h>

#include <cstddef>

namespace courier::hub::serialisation::detail {

/// Memory for bytes that grow. It comes from std::malloc, because std::realloc can enlarge a large
/// block by moving its pages, without copying a byte; std::allocator cannot.
///
/// A plain value that owns nothing by itself: whoever holds it calls free(). Every function that
/// allocates throws std::bad_alloc and has then changed nothing. Sizes are not 0.
struct COURIER_HUB_SERIALISATION_EXPORT GrownBytes {
    std::byte* start = nullptr;
    std::size_t capacity = 0;

    /// `size` bytes of any value.
    [[nodiscard]] static GrownBytes allocate(std::size_t size);
    /// `size` bytes of value 0. Large ones are not touched: the system provides them when they are.
    [[nodiscard]] static GrownBytes allocateZeroed(std::size_t size);

    /// Makes room for `size` bytes, no fewer than there are. The bytes may move; they keep their
    /// values. Invalidates all addresses.
    void grow(std::size_t size);

    /// Frees the memory, if there is any.
    void free() noexcept;
};

} // namespace courier::hub::serialisation::detail

#endif
