// One page of a tree in LMDB's data file, with its entries.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"
#include "host/store/data_file.h"

namespace vexa::store {

// What is wrong with which page.
struct PageDamage {
  std::uint64_t page = 0;
  std::string what;
};

enum class EntryKind {
  kChild,     // of a branch page
  kValue,     // `value` is in the page
  kOverflow,  // the value is in the overflow run at `page`
  kTree,      // `value` is a DataTree
};

struct TreeEntry {
  EntryKind kind = EntryKind::kValue;
  std::string_view key;
  std::string_view value;
  std::uint64_t page = 0;         // of kChild and kOverflow
  std::uint64_t value_bytes = 0;  // of values
};

struct TreePage {
  bool is_branch = false;
  std::vector<TreeEntry> entries;  // views of the page's bytes
};

// Reads the page `number` from its `bytes`. An error unless its number is right, it is a branch or a leaf, and its
// entries fill exactly the room that its header says, each with a size that fits and flags that we use.
Result<TreePage, PageDamage> ParseTreePage(std::span<const char> bytes, std::uint64_t number);

}  // namespace vexa::store
