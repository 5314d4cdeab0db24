// SPDX-License-Identifier: Apache-2.0
#include <bedrock/core/diag/terminate.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace {
std::atomic<bool> terminating{true};
}

bool bedrock_diag_terminate() noexcept { return terminating.load(std::memory_order_relaxed); }

bool bedrock_diag_set_terminate(bool terminate) noexcept {
    return terminating.exchange(terminate, std::memory_order_relaxed);
}

namespace bedrock::core::diag {

void terminate(std::string const& message, char const* file, int line, char const* function) {
    // One call, so that the lines of several failing threads do not mix.
    std::fprintf(stderr, "%s [%s:%d, %s]\n", message.c_str(), file, line, function);
    std::abort();
}

} // namespace bedrock::core::diag
