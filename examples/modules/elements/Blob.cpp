// SPDX-License-Identifier: Apache-2.0
#include "examples/modules/elements/Blob.h"

#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <memory>
#include <system_error>

namespace courier::examples {

using hub::serialisation::ByteBuffer;

Blob Blob::map(std::filesystem::path const& file) {
    auto const require = [&](bool condition, std::error_code error) {
        if (!condition) {
            throw std::system_error(error, "cannot read " + file.string());
        }
    };
    auto const lastError = [] { return std::error_code(errno, std::generic_category()); };

    // Checked first, because opening a pipe would wait for its writer.
    std::error_code error;
    auto const status = std::filesystem::status(file, error);
    require(!error, error);
    require(!is_directory(status), std::make_error_code(std::errc::is_a_directory));
    require(is_regular_file(status), std::make_error_code(std::errc::not_supported));

    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const opened(std::fopen(file.c_str(), "rbe"),
                                                                 std::fclose);
    require(opened != nullptr, lastError());
    std::size_t const size = std::filesystem::file_size(file, error);
    require(!error, error);
    if (size == 0) {
        return Blob(ByteBuffer()); // nothing to map
    }
    void* const mapping = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, ::fileno(opened.get()), 0);
    require(mapping != MAP_FAILED, lastError());
    return Blob(ByteBuffer({mapping, [size](void* block) { ::munmap(block, size); }}, size));
}

} // namespace courier::examples
