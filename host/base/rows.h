// Lookup in constant tables, which are arrays of rows.
#pragma once

#include <cstddef>
#include <type_traits>

namespace vexa {

// The first row whose member `key` equals `value`; null when no row matches.
template <class Row, std::size_t size, class Key>
constexpr const Row* FindRow(const Row (&rows)[size], Key Row::*key, const std::type_identity_t<Key>& value) {
  for (const Row& row : rows) {
    if (row.*key == value) return &row;
  }
  return nullptr;
}

}  // namespace vexa
