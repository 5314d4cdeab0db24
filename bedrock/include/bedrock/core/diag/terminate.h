// SPDX-License-Identifier: Apache-2.0
#ifndef BEDROCK_CORE_DIAG_TERMINATE_H
#define BEDROCK_CORE_DIAG_TERMINATE_H

#include <bedrock/Export.h>

#include <string>

/// @file
/// The fatal diagnostic, and the switch for it.

/// True if a broken invariant ends the process. True unless bedrock_diag_set_terminate(false) was
/// called. Thread-safe; takes no lock.
[[nodiscard]] BEDROCK_EXPORT bool bedrock_diag_terminate() noexcept;

/// Sets what bedrock_diag_terminate() returns, for the whole process.
/// @return the previous value. Thread-safe; takes no lock.
BEDROCK_EXPORT bool bedrock_diag_set_terminate(bool terminate) noexcept;

/// The fatal diagnostic.
namespace bedrock::core::diag {

/// Writes one line with the message, the source position and the function to standard error. Then
/// calls std::abort. Thread-safe.
[[noreturn]] BEDROCK_EXPORT void terminate(std::string const& message, char const* file, int line,
                                           char const* function);

} // namespace bedrock::core::diag

#endif
