// SPDX-License-Identifier: Apache-2.0
#ifndef COURIER_TESTS_MODULES_TABLE_H
#define COURIER_TESTS_MODULES_TABLE_H

#include <cstdint>
#include <map>
#include <string>

namespace tests {

/// A type that each compiler spells in its own way.
template <class Key> struct Table { std::map<Key, std::uint64_t> rows; };
using Element = Table<std::string>;

} // namespace tests

#endif
