// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROTOBUF_FORMAT_H
#define COURIER_EXAMPLES_PROTOBUF_FORMAT_H

#include "Registration.h"

#include <google/protobuf/io/zero_copy_stream.h>
#include <google/protobuf/message_lite.h>

#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <istream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace courier::examples {

/// Hands the bytes of a stream buffer to the decoder where they lie: nothing is copied but into the
/// fields of the message.
///
/// A byte counts as 64 against the limit: an empty element of a list takes two bytes and becomes an
/// object. What the stream throws is kept for rethrow(), as the decoder is not made for exceptions.
class ProtobufSource final : public google::protobuf::io::ZeroCopyInputStream {
public:
    ProtobufSource(std::streambuf& bytes, ReadBudget budget) : bytes_(bytes), budget_(budget) {}

    bool Next(void const** data, int* size) override {
        try {
            auto const none = std::streambuf::traits_type::eof();
            if (std::streambuf::traits_type::eq_int_type(bytes_.sgetc(), none)) {
                return false;
            }
            char const* const first = GetArea::position(bytes_);
            auto count = std::min<std::ptrdiff_t>(GetArea::end(bytes_) - first, longestPiece);
            if (count > 0) {
                *data = first;
                GetArea::advance(bytes_, static_cast<int>(count));
            } else { // a stream buffer without a get area
                byte_ = std::streambuf::traits_type::to_char_type(bytes_.sbumpc());
                *data = &byte_;
                count = 1;
            }
            budget_.spend(static_cast<std::uint64_t>(count) * memoryPerByte);
            *size = static_cast<int>(count);
            count_ += count;
            return true;
        } catch (...) {
            error_ = std::current_exception();
            return false;
        }
    }
    void BackUp(int count) override {
        count_ -= count;
        for (; count > 0; --count) {
            bytes_.sungetc();
        }
    }
    bool Skip(int count) override {
        void const* data = nullptr;
        for (int size = 0; count > 0; count -= size) {
            if (!Next(&data, &size)) {
                return false;
            }
            if (size > count) {
                BackUp(size - count);
                size = count;
            }
        }
        return true;
    }
    [[nodiscard]] std::int64_t ByteCount() const override { return count_; }

    void rethrow() const {
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

private:
    static constexpr std::ptrdiff_t longestPiece = std::ptrdiff_t{64} << 10;
    static constexpr std::uint64_t memoryPerByte = 64;

    // The get area is for derived classes, which may ask for that of any stream buffer.
    struct GetArea : std::streambuf {
        static char const* position(std::streambuf& b) { return (b.*&GetArea::gptr)(); }
        static char const* end(std::streambuf& b) { return (b.*&GetArea::egptr)(); }
        static void advance(std::streambuf& b, int count) { (b.*&GetArea::gbump)(count); }
    };

    std::streambuf& bytes_;
    ReadBudget budget_;
    char byte_ = 0;
    std::int64_t count_ = 0;
    std::exception_ptr error_;
};

/// Passes on what the encoder writes, one copy in blocks of 64 KiB.
class ProtobufSink final : public google::protobuf::io::ZeroCopyOutputStream {
public:
    explicit ProtobufSink(std::ostream& out) : out_(out), block_(std::size_t{64} << 10) {}

    bool Next(void** data, int* size) override {
        if (!passOn()) {
            return false;
        }
        used_ = block_.size();
        *data = block_.data();
        *size = static_cast<int>(used_);
        return true;
    }
    void BackUp(int count) override { used_ -= static_cast<std::size_t>(count); }
    [[nodiscard]] std::int64_t ByteCount() const override {
        return count_ + static_cast<std::int64_t>(used_);
    }

    /// Writes the last block; throws what any write threw.
    void finish() {
        passOn();
        if (error_) {
            std::rethrow_exception(error_);
        }
    }

private:
    bool passOn() {
        try {
            auto const count = static_cast<std::streamsize>(std::exchange(used_, 0));
            if (!error_) {
                out_.write(block_.data(), count);
                count_ += count;
            }
        } catch (...) {
            error_ = std::current_exception();
        }
        return !error_;
    }

    std::ostream& out_;
    std::vector<char> block_;
    std::size_t used_ = 0; // by the encoder, and not yet passed on
    std::int64_t count_ = 0;
    std::exception_ptr error_;
};

/// Registers a generated message type as "protobuf": the message's own bytes, to the end of the
/// stream. They have no mark at their end, so bytes that are cut off between two fields are a
/// shorter message.
///
/// A module whose messages have descriptors (without `optimize_for = LITE_RUNTIME`) must never be
/// unloaded. Link libprotobuf dynamically, as modules and program hand messages to each other.
template <std::derived_from<google::protobuf::MessageLite> Message> void
registerMessage(hub::serialisation::Catalogue& catalogue, std::shared_ptr<ReadLimit> const& limit) {
    registerFormat<Message>(
        catalogue, "protobuf", limit,
        [](Message const& message, StoppableStream& out) {
            if (message.ByteSizeLong() > std::numeric_limits<int>::max()) {
                throw std::runtime_error("a message cannot be longer than 2 GiB");
            }
            ProtobufSink sink(out);
            bool const isWritten = message.SerializePartialToZeroCopyStream(&sink);
            sink.finish();
            if (!isWritten) {
                throw std::runtime_error("the message cannot be written");
            }
        },
        [](std::istream& in, ReadBudget budget) {
            ProtobufSource source(*in.rdbuf(), budget);
            Message message;
            bool const isRead = message.ParsePartialFromZeroCopyStream(&source);
            source.rethrow();
            if (!isRead) {
                throw std::runtime_error("the data is no " + message.GetTypeName() +
                                         ", damaged, or ends too early");
            }
            if (!message.IsInitialized()) {
                throw std::runtime_error("the data lacks " + message.InitializationErrorString());
            }
            return message;
        });
}

} // namespace courier::examples

#endif
