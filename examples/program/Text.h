// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_EXAMPLES_PROGRAM_TEXT_H
#define COURIER_EXAMPLES_PROGRAM_TEXT_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>
#include <string_view>
#include <vector>

namespace courier::examples {

using Seconds = std::chrono::duration<double>;
using Row = std::vector<std::string>;

/// Columns as wide as their widest cell; those marked with '>' in `alignment` are set to the right.
void printTable(std::ostream& out, std::vector<Row> const& rows, std::string_view alignment);

/// "3.14"
[[nodiscard]] std::string fixed(double value, int decimals);

/// "1,234,567"
[[nodiscard]] std::string grouped(std::size_t n);

/// Megabytes in a second.
[[nodiscard]] std::string speed(std::size_t bytes, Seconds time);

/// "0x0123456789abcdef"
[[nodiscard]] std::string hexadecimal(std::uint64_t value);

/// "1 thing", "2 things"
[[nodiscard]] std::string counted(std::size_t n, std::string_view thing);

/// One after the other, with a separator in between.
[[nodiscard]] std::string join(std::vector<std::string> const& texts, std::string_view separator);

/// The texts between the separators: one more than there are separators. Throws std::runtime_error
/// unless there are `count`, if that is not 0.
[[nodiscard]] std::vector<std::string> split(std::string_view text, char separator,
                                             std::size_t count = 0);

} // namespace courier::examples

#endif
