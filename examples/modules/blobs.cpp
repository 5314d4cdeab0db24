// SPDX-License-Identifier: Apache-2.0
// The module of the element type Blob.

#include "examples/modules/elements/Blob.h"
#include "examples/modules/formats/ReadLimit.h"
#include "examples/modules/formats/WriteBlock.h"

#include <courier/hub/serialisation/IOStreams.h>
#include <courier/hub/serialisation/Module.h>
#include <courier/hub/serialisation/Registration.h>

#define ZLIB_CONST // input is read-only
#include <zlib.h>
#include <zstd.h>
#include <zstd_errors.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <istream>
#include <memory>
#include <new>
#include <ostream>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace courier::examples {

namespace {

using namespace hub::serialisation;

constexpr std::size_t chunkSize = std::size_t{256} << 10;

// What one call of a codec did.
struct Step {
    std::size_t consumed;
    std::size_t produced;
    bool ended; // the compressed data is complete
};

// Runs a compressor over all the bytes: Step compress(input, output, bool isLastInput).
template <class Compress> void writeCompressed(Blob const& blob, std::ostream& out,
                                               stop_token const& stop, Compress compress) {
    std::span<std::byte const> rest(blob.bytes());
    bool ended = false;
    while (!ended) {
        writeBlock(chunkSize, out, stop, [&](std::span<std::byte> output) {
            auto const input = rest.first(std::min(rest.size(), chunkSize));
            Step const step = compress(input, output, input.size() == rest.size());
            rest = rest.subspan(step.consumed);
            ended = step.ended;
            return step.produced;
        });
    }
}

// Runs a decompressor until the data ends: Step decompress(input, output). Memory is taken only for
// decompressed bytes, never for a length that the data claims.
template <class Decompress>
Blob readCompressed(std::istream& in, ReadBudget budget, Decompress decompress) {
    std::vector<std::byte> buffer(chunkSize);
    std::span<std::byte const> input;
    ByteBufferOStream bytes;
    bool isMore = false; // decompressed bytes for which there was no room
    for (bool ended = false; !ended;) {
        if (input.empty() && !isMore) {
            in.read(reinterpret_cast<char*>(buffer.data()),
                    static_cast<std::streamsize>(buffer.size()));
            input = std::span(buffer).first(static_cast<std::size_t>(in.gcount()));
            if (input.empty()) {
                throw std::runtime_error("the data ends too early");
            }
        }
        auto const output = bytes.prepare(chunkSize).first(chunkSize);
        Step const step = decompress(input, output);
        budget.spend(step.produced);
        bytes.commit(step.produced);
        input = input.subspan(step.consumed);
        isMore = step.produced == output.size();
        ended = step.ended;
    }
    if (!input.empty() || in.peek() != std::istream::traits_type::eof()) {
        throw std::runtime_error("bytes follow the end of the data");
    }
    return Blob(bytes.release());
}

// raw: the bytes themselves

void writeRaw(Blob const& blob, std::ostream& out, stop_token const& stop) {
    static_cast<void>(prepare(out, blob.bytes().size())); // so that a block need not grow
    writeAll(std::span<std::byte const>(blob.bytes()), out, stop);
}

// A part of the received block, if the stream owns that.
Blob readRaw(std::istream& in, ReadBudget budget) {
    std::uint64_t const most = budget.left();
    ByteBuffer bytes = take(in, std::max(most, most + 1)); // one more shows that there is too much
    budget.spend(bytes.size());
    return Blob(std::move(bytes));
}

// deflate: a zlib stream, which ends with a checksum

using ZlibEnd = std::unique_ptr<z_stream, int (*)(z_stream*)>;

void give(z_stream& zlib, std::span<Bytef const> input, std::span<std::byte> output) {
    zlib.next_in = input.data();
    zlib.avail_in = static_cast<uInt>(input.size());
    zlib.next_out = reinterpret_cast<Bytef*>(output.data());
    zlib.avail_out = static_cast<uInt>(output.size());
}

void writeDeflate(Blob const& blob, std::ostream& out, stop_token const& stop) {
    z_stream zlib{};
    if (deflateInit(&zlib, Z_DEFAULT_COMPRESSION) != Z_OK) {
        throw std::bad_alloc();
    }
    ZlibEnd const end(&zlib, deflateEnd);
    writeCompressed(
        blob, out, stop, [&](auto input, std::span<std::byte> output, bool isLastInput) {
            give(zlib, {reinterpret_cast<Bytef const*>(input.data()), input.size()}, output);
            int const result = deflate(&zlib, isLastInput ? Z_FINISH : Z_NO_FLUSH);
            return Step{input.size() - zlib.avail_in, output.size() - zlib.avail_out,
                        result == Z_STREAM_END};
        });
}

Blob readDeflate(std::istream& in, ReadBudget budget) {
    z_stream zlib{};
    if (inflateInit(&zlib) != Z_OK) {
        throw std::bad_alloc();
    }
    ZlibEnd const end(&zlib, inflateEnd);
    return readCompressed(
        in, budget, [&](std::span<std::byte const> input, std::span<std::byte> output) {
            give(zlib, {reinterpret_cast<Bytef const*>(input.data()), input.size()}, output);
            int const result = inflate(&zlib, Z_NO_FLUSH);
            if (result == Z_MEM_ERROR) {
                throw std::bad_alloc();
            }
            // Z_BUF_ERROR means that it needs more input.
            if (result != Z_OK && result != Z_STREAM_END && result != Z_BUF_ERROR) {
                throw std::runtime_error(std::string("the data is damaged: ") +
                                         (zlib.msg != nullptr ? zlib.msg : zError(result)));
            }
            return Step{input.size() - zlib.avail_in, output.size() - zlib.avail_out,
                        result == Z_STREAM_END};
        });
}

// zstd: one frame, which ends with a checksum

struct FreeContext {
    void operator()(ZSTD_CCtx* context) const noexcept { ZSTD_freeCCtx(context); }
    void operator()(ZSTD_DCtx* context) const noexcept { ZSTD_freeDCtx(context); }
};

void requireSuccess(std::size_t result) {
    if (ZSTD_getErrorCode(result) == ZSTD_error_memory_allocation) {
        throw std::bad_alloc();
    }
    if (ZSTD_isError(result) != 0) {
        throw std::runtime_error(std::string("the data is damaged: ") + ZSTD_getErrorName(result));
    }
}

void writeZstd(Blob const& blob, std::ostream& out, stop_token const& stop) {
    std::unique_ptr<ZSTD_CCtx, FreeContext> const zstd(ZSTD_createCCtx());
    if (!zstd) {
        throw std::bad_alloc();
    }
    requireSuccess(ZSTD_CCtx_setParameter(zstd.get(), ZSTD_c_checksumFlag, 1));
    writeCompressed(
        blob, out, stop, [&](auto input, std::span<std::byte> output, bool isLastInput) {
            ZSTD_inBuffer source{input.data(), input.size(), 0};
            ZSTD_outBuffer target{output.data(), output.size(), 0};
            std::size_t const left = ZSTD_compressStream2(
                zstd.get(), &target, &source, isLastInput ? ZSTD_e_end : ZSTD_e_continue);
            requireSuccess(left);
            return Step{source.pos, target.pos, isLastInput && left == 0};
        });
}

Blob readZstd(std::istream& in, ReadBudget budget) {
    std::unique_ptr<ZSTD_DCtx, FreeContext> const zstd(ZSTD_createDCtx());
    if (!zstd) {
        throw std::bad_alloc();
    }
    // The decoder allocates the window that a frame claims, however few bytes follow. Every decoder
    // must support 8 MiB.
    constexpr int widest = 23;
    requireSuccess(ZSTD_DCtx_setParameter(zstd.get(), ZSTD_d_windowLogMax, widest));
    return readCompressed(
        in, budget, [&](std::span<std::byte const> input, std::span<std::byte> output) {
            ZSTD_inBuffer source{input.data(), input.size(), 0};
            ZSTD_outBuffer target{output.data(), output.size(), 0};
            std::size_t const left = ZSTD_decompressStream(zstd.get(), &target, &source);
            requireSuccess(left);
            return Step{source.pos, target.pos, left == 0};
        });
}

} // namespace

} // namespace courier::examples

void courier_register_module(courier::hub::serialisation::Catalogue& catalogue) {
    using namespace courier::examples;
    using courier::hub::serialisation::addFormat;
    addFormat<Blob>(catalogue, "raw", writeRaw, limited(catalogue, readRaw));
    addFormat<Blob>(catalogue, "deflate", writeDeflate, limited(catalogue, readDeflate));
    addFormat<Blob>(catalogue, "zstd", writeZstd, limited(catalogue, readZstd));
}
