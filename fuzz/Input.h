// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_FUZZ_INPUT_H
#define COURIER_FUZZ_INPUT_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace fuzz {

/// What a fuzzer wrote, taken byte by byte to decide what happens next. Past its end come zeros.
class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) noexcept : next_(data), end_(data + size) {}

    /// Whether there is more.
    explicit operator bool() const noexcept { return next_ != end_; }

    std::uint8_t byte() noexcept { return *this ? *next_++ : std::uint8_t{0}; }
    /// A number below n, which is at most 256.
    std::size_t below(std::size_t n) noexcept { return byte() % n; }
    bool oneIn(std::size_t n) noexcept { return below(n) == n - 1; }
    bool flag() noexcept { return oneIn(2); }
    /// A length, short more often than not, up to 1016.
    std::size_t length() noexcept {
        std::size_t const root = byte();
        return root * root / 64;
    }

    /// Does one of these.
    template <class... Actions> void oneOf(Actions const&... actions) {
        std::size_t skip = below(sizeof...(actions));
        static_cast<void>(((skip-- == 0 && (actions(), true)) || ...));
    }

    /// n bytes that take nothing from the input. They differ from those before, so that bytes in
    /// the wrong place show.
    std::string fresh(std::size_t n) {
        std::string bytes(n, '\0');
        for (char& c : bytes) {
            state_ = state_ * 6364136223846793005 + 1442695040888963407;
            c = static_cast<char>(state_ >> 56);
        }
        return bytes;
    }

private:
    std::uint8_t const* next_;
    std::uint8_t const* end_;
    std::uint64_t state_ = 0;
};

/// Ends the process, with the line that found it, where the library differs from its model.
inline void require(bool same, char const* file = __builtin_FILE(), int line = __builtin_LINE()) {
    if (!same) {
        std::fprintf(stderr, "%s:%d: not what the model says\n", file, line);
        std::abort();
    }
}

} // namespace fuzz

/// What each fuzzer defines: acts on one input.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

#endif
