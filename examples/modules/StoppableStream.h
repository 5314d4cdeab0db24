// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_STOPPABLE_STREAM_H
#define COURIER_EXAMPLES_STOPPABLE_STREAM_H

#include <courier/hub/serialisation/Serialisers.h>

#include <algorithm>
#include <cstddef>
#include <ostream>
#include <streambuf>
#include <system_error>
#include <utility>
#include <vector>

namespace courier::examples {

/// The stream that an encoder writes to, in front of the one that the bytes are for. It passes them
/// on in pieces of at most 256 KiB and looks at the stop token before each.
///
/// It throws right through the encoder, which so needs no checks of its own: std::system_error with
/// std::errc::operation_canceled when a stop was requested, and with std::errc::io_error when the
/// target fails. What was passed on before stays written. The last bytes go out with flush(); the
/// destructor drops what is left, because it must not throw.
class StoppableStream final : public std::ostream {
public:
    static constexpr std::size_t pieceSize = std::size_t{256} << 10;

    StoppableStream(hub::serialisation::stop_token token, std::ostream& target)
        : std::ostream(nullptr), buffer_(std::move(token), target) {
        rdbuf(&buffer_);
        exceptions(std::ios::badbit); // lets what the buffer throws through
    }

    /// For an encoder that takes in much and puts out little: call it once for each piece taken in.
    void throwIfStopped() const { buffer_.throwIfStopped(); }

private:
    class Buffer final : public std::streambuf {
    public:
        Buffer(hub::serialisation::stop_token token, std::ostream& target)
            : token_(std::move(token)), target_(target), pending_(std::size_t{64} << 10) {
            empty();
        }

        void throwIfStopped() const {
            if (token_.stop_requested()) {
                throw std::system_error(std::make_error_code(std::errc::operation_canceled));
            }
        }

    protected:
        int_type overflow(int_type c) override {
            sync();
            return traits_type::eq_int_type(c, traits_type::eof())
                       ? traits_type::not_eof(c)
                       : sputc(traits_type::to_char_type(c));
        }

        std::streamsize xsputn(char const* bytes, std::streamsize count) override {
            if (count <= epptr() - pptr()) {
                std::copy_n(bytes, count, pptr());
                pbump(static_cast<int>(count)); // no more than what is pending
            } else {
                sync();
                passOn(bytes, count);
            }
            return count;
        }

        int sync() override {
            passOn(pbase(), pptr() - pbase());
            empty();
            return 0;
        }

    private:
        void empty() { setp(pending_.data(), pending_.data() + pending_.size()); }

        void passOn(char const* bytes, std::streamsize count) {
            while (count > 0) {
                throwIfStopped();
                auto const piece = std::min<std::streamsize>(count, pieceSize);
                if (!target_.write(bytes, piece)) {
                    throw std::system_error(std::make_error_code(std::errc::io_error),
                                            "the stream takes no more bytes");
                }
                bytes += piece;
                count -= piece;
            }
        }

        hub::serialisation::stop_token token_;
        std::ostream& target_;
        std::vector<char> pending_;
    };

    Buffer buffer_;
};

} // namespace courier::examples

#endif
