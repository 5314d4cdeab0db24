// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_ELEMENTS_BLOB_H
#define COURIER_EXAMPLES_ELEMENTS_BLOB_H

#include <courier/hub/serialisation/Buffers.h>

#include <filesystem>
#include <utility>

namespace courier::examples {

/// The bytes of a file. Wire formats: raw, deflate (a zlib stream), zstd (one frame).
class Blob {
public:
    explicit Blob(hub::serialisation::ByteBuffer bytes) noexcept : bytes_(std::move(bytes)) {}

    /// Maps the file into memory: bytes are read when they are used, and never copied. The file
    /// must not shrink while the blob exists. Throws std::system_error, which names the file,
    /// when it cannot be read or is not a regular file.
    [[nodiscard]] static Blob map(std::filesystem::path const& file);

    [[nodiscard]] hub::serialisation::ByteBufferView bytes() const noexcept {
        return hub::serialisation::ByteBufferView(bytes_);
    }

    friend bool operator==(Blob const&, Blob const&) noexcept = default;

private:
    hub::serialisation::ByteBuffer bytes_;
};

} // namespace courier::examples

#endif
