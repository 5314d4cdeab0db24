// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_FUZZ_INPUT_H
#define COURIER_FUZZ_INPUT_H

#include "../tests/Support.h"

#include <cstdint>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <iterator>
#include <utility>

namespace fuzz {

/// The present step of a run, for the message of a failure. No std::string: MinGW does not link a
/// thread_local with a constructor that several files have.
struct Place {
    char const* input = "the fuzzer's input";
    std::size_t step = 0;
    char const* operation = "the start";
};
inline thread_local Place place;

inline std::ostream& operator<<(std::ostream& out, Place const& p) {
    return out << p.input << ", step " << p.step << ", " << p.operation;
}

/// Ends the process if the library's result differs from its model's.
#define SAME(library, model) fuzz::requireSame(#library, library, model, __FILE__, __LINE__)
template <class Library, class Model> void requireSame(char const* asked, Library const& library,
                                                       Model const& model, char const* file,
                                                       int line) {
    if (!(library == model)) {
        std::cerr << file << ':' << line << ": " << place << ": " << asked << " is "
                  << testing::PrintToString(library) << ", and by the model "
                  << testing::PrintToString(model) << std::endl;
        std::abort();
    }
}

/// The same for the message of what a call throws, or "no exception".
#define SAME_ERROR(Exception, message, call)                                                       \
    SAME(tests::messageOf<Exception>([&] { static_cast<void>(call); }), message)

/// The message of what a call throws, whatever its type.
inline std::string const none = "no exception";
inline std::string said(auto call) {
    try {
        call();
    } catch (std::exception const& error) {
        return error.what();
    }
    return none;
}

/// An action for Input::oneOf(). The message of a failure has its text.
#define DO(...) std::pair(#__VA_ARGS__, [&] { __VA_ARGS__; })

/// The bytes of a fuzzer, which decide what happens next. Past their end there are zeros.
class Input {
public:
    Input(std::uint8_t const* data, std::size_t size) noexcept : next_(data), end_(data + size) {
        place.step = 0;
    }

    /// Whether any bytes are left.
    explicit operator bool() const noexcept { return next_ != end_; }

    std::uint8_t byte() noexcept { return *this ? *next_++ : std::uint8_t{0}; }
    /// A number below n, which is at most 256.
    std::size_t below(std::size_t n) noexcept { return byte() % n; }
    bool oneIn(std::size_t n) noexcept { return below(n) == n - 1; }
    bool flag() noexcept { return oneIn(2); }

    /// A length. Half of the time it is one of those at which something may change, or next to
    /// one: `atHand` is the caller's own, such as a size. Otherwise it is short, up to 1016.
    std::size_t length(std::size_t atHand = 0) noexcept {
        constexpr std::size_t one = 1;
        std::size_t const edges[] = {0,         1,         16,        32,       4096,   one << 16,
                                     one << 31, one << 32, one << 63, ~one + 1, atHand, atHand};
        if (flag()) {
            return edges[below(std::size(edges))] + below(3) - 1;
        }
        std::size_t const root = byte();
        return root * root / 64;
    }
    /// The same, of content that is made.
    std::size_t size(std::size_t atHand = 0) noexcept {
        std::size_t const n = length(atHand);
        return n <= most ? n : n % 64;
    }
    static constexpr std::size_t most = 5000;

    /// Does one of these actions.
    template <class... Actions> void oneOf(Actions const&... actions) {
        ++place.step;
        std::size_t skip = below(sizeof...(actions));
        auto const act = [&](auto const& action) {
            if (skip-- == 0) {
                place.operation = action.first;
                action.second();
            }
        };
        (act(actions), ...);
    }

    /// Acts. One time in four, each of the fault points fails first, one after the other: what
    /// fails must change nothing that `check` sees.
    void withFaults(auto const& act, auto const& check) {
        constexpr std::size_t never = ~std::size_t{1};
        for (std::size_t n = oneIn(4) ? 0 : never;; ++n) {
            tests::failAfter(n);
            try {
                act();
                SAME(tests::stopFailing(), false); // or it was swallowed
                return;
            } catch (...) {
                if (!tests::stopFailing()) {
                    throw;
                }
                check();
            }
        }
    }

    /// n bytes that are not taken from the input. They differ from earlier ones, so that misplaced
    /// bytes are found.
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

} // namespace fuzz

/// What each fuzzer defines: acts on one input.
extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size);

#endif
