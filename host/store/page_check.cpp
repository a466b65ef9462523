#include "host/store/page_check.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace vexa::store {
namespace {

using Checked = Result<void, PageDamage>;

enum class TreeKind { kMain, kNamed, kFreePages };

// Of the walk through one tree.
struct Walk {
  TreeKind kind = TreeKind::kNamed;
  std::uint64_t depth = 0;
  std::uint64_t entries = 0;
  bool has_key = false;
  std::string last_key;      // of the last entry, if has_key
  std::string smallest_key;  // that may come next, according to the branch pages
  std::vector<std::vector<char>> buffers;
};

class PageCheck {
 public:
  PageCheck(const DataFile& file, const DataMetaPage& meta)
      : file_(file),
        meta_(meta),
        page_bytes_(meta.free_pages.page_bytes),
        file_pages_(file.size() / page_bytes_),
        seen_(std::min(file_pages_, meta.last_page + 1)) {}

  Checked Run() {
    if (Checked main = CheckTree(meta_.main, TreeKind::kMain); !main) return main;
    for (const auto& [page, tree] : named_trees_) {
      if (tree.flags != 0 || tree.page_bytes != 0) return PageDamage{page, "it names a tree of an unknown kind"};
      if (Checked named = CheckTree(tree, TreeKind::kNamed); !named) return named;
    }
    if (Checked free = CheckTree(meta_.free_pages, TreeKind::kFreePages); !free) return free;
    return CheckEnd();
  }

 private:
  Checked CheckTree(const DataTree& tree, TreeKind kind) {
    const std::uint64_t meta_page = meta_.transaction % 2;
    if (tree.root == kNoDataPage) {
      if (tree.depth == 0 && tree.entries == 0) return {};
      return PageDamage{meta_page, "a tree without pages has entries"};
    }
    if (tree.depth == 0 || tree.depth > kMaxTreeDepth) return PageDamage{meta_page, "a tree has an impossible depth"};
    Walk walk;
    walk.kind = kind;
    walk.depth = tree.depth;
    walk.buffers.resize(tree.depth, std::vector<char>(page_bytes_));
    if (Checked pages = CheckPage(walk, tree.root, 1); !pages) return pages;
    if (walk.entries == tree.entries) return {};
    return PageDamage{tree.root, fmt::format("its tree has {} entries, not {}", walk.entries, tree.entries)};
  }

  Checked CheckPage(Walk& walk, std::uint64_t number, std::uint64_t level) {
    if (Checked used = Use(number, 1); !used) return used;
    std::vector<char>& bytes = walk.buffers[level - 1];
    if (!file_.ReadBytes(number * page_bytes_, bytes.data(), bytes.size())) return PageDamage{number, "cannot be read"};
    const Result<TreePage, PageDamage> page = ParseTreePage(bytes, number);
    if (!page) return page.error();
    if (page->is_branch != (level < walk.depth)) return PageDamage{number, "its tree has branches of other lengths"};
    // LMDB relies on at least two children, except in the tree of free pages.
    if (page->is_branch && page->entries.size() < 2 && walk.kind != TreeKind::kFreePages) {
      return PageDamage{number, "it has a single child"};
    }
    for (std::size_t i = 0; i < page->entries.size(); ++i) {
      const TreeEntry& entry = page->entries[i];
      Checked checked;
      if (!page->is_branch) {
        checked = CheckLeafEntry(walk, number, entry);
      } else if (i > 0 && !(HasPossibleKey(walk, entry) && ComesAfterLast(walk, entry.key))) {
        checked = PageDamage{number, fmt::format("its entry {} is out of order", i)};
      } else {
        if (i > 0) walk.smallest_key = entry.key;
        checked = CheckPage(walk, entry.page, level + 1);
      }
      if (!checked) return checked;
    }
    return {};
  }

  Checked CheckLeafEntry(Walk& walk, std::uint64_t page, const TreeEntry& entry) {
    ++walk.entries;
    if (!HasPossibleKey(walk, entry)) return PageDamage{page, "it has a key that is not a transaction"};
    if (!ComesAfterLast(walk, entry.key) || IsLess(walk, entry.key, walk.smallest_key)) {
      return PageDamage{page, "its keys are out of order"};
    }
    walk.last_key = entry.key;
    walk.has_key = true;
    if (entry.kind == EntryKind::kOverflow) {
      if (Checked run = CheckOverflow(entry); !run) return run;
    }
    if (entry.kind == EntryKind::kTree) {
      if (walk.kind != TreeKind::kMain) return PageDamage{page, "it names a tree inside another one"};
      DataTree tree{};
      std::memcpy(&tree, entry.value.data(), sizeof tree);
      named_trees_.emplace_back(page, tree);
    }
    return walk.kind == TreeKind::kFreePages ? CheckFreePages(page, entry) : Checked();
  }

  static bool HasPossibleKey(const Walk& walk, const TreeEntry& entry) {
    return walk.kind != TreeKind::kFreePages || entry.key.size() == sizeof(std::uint64_t);
  }

  bool IsLess(const Walk& walk, std::string_view a, std::string_view b) const {
    if (walk.kind != TreeKind::kFreePages || a.empty() || b.empty()) return a < b;
    return Number(a) < Number(b);
  }

  bool ComesAfterLast(const Walk& walk, std::string_view key) const {
    return !walk.has_key || IsLess(walk, walk.last_key, key);
  }

  static std::uint64_t Number(std::string_view bytes) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.data(), sizeof number);
    return number;
  }

  Checked CheckOverflow(const TreeEntry& entry) {
    const std::uint64_t needed = (entry.value_bytes + sizeof(DataPageHeader) - 1) / page_bytes_ + 1;
    if (Checked used = Use(entry.page, needed); !used) return used;
    DataPageHeader header{};
    if (!file_.Read(entry.page * page_bytes_, header)) return PageDamage{entry.page, "cannot be read"};
    // A value that became shorter before its commit keeps its run.
    const std::uint64_t pages = header.lower | static_cast<std::uint64_t>(header.upper) << 16;
    if (header.number != entry.page || header.flags != kOverflowPage || pages < needed) {
      return PageDamage{entry.page, "it does not begin the overflow run of a value"};
    }
    return Use(entry.page + needed, pages - needed);
  }

  // A list is its length, then the pages in descending order.
  Checked CheckFreePages(std::uint64_t page, const TreeEntry& entry) {
    if (Number(entry.key) > meta_.transaction) return PageDamage{page, "it has pages that a later transaction freed"};
    std::vector<char> stored;
    std::string_view list = entry.value;
    if (entry.kind == EntryKind::kOverflow) {
      stored.resize(entry.value_bytes);
      const std::uint64_t offset = entry.page * page_bytes_ + sizeof(DataPageHeader);
      if (!file_.ReadBytes(offset, stored.data(), stored.size())) return PageDamage{entry.page, "cannot be read"};
      list = {stored.data(), stored.size()};
    }
    constexpr std::size_t kBytes = sizeof(std::uint64_t);
    const std::uint64_t count = list.size() >= kBytes ? Number(list) : 0;
    // LMDB may leave unused room at the end of a list.
    if (list.size() < kBytes || count > list.size() / kBytes - 1)
      return PageDamage{page, "a list of free pages is cut"};
    std::uint64_t previous = kNoDataPage;
    for (std::uint64_t i = 1; i <= count; ++i) {
      const std::uint64_t free = Number(list.substr(i * kBytes));
      if (free >= previous) return PageDamage{page, "a list of free pages is out of order"};
      previous = free;
      if (free >= file_pages_ && free <= meta_.last_page) {
        ++free_beyond_file_;
      } else if (Checked used = Use(free, 1); !used) {
        return used;
      }
    }
    return {};
  }

  Checked Use(std::uint64_t first, std::uint64_t count) {
    if (count == 0) return {};
    if (first < 2 || first >= seen_.size() || count > seen_.size() - first) {
      return PageDamage{first, "it is in use, but outside of the file"};
    }
    for (std::uint64_t number = first; number < first + count; ++number) {
      if (seen_[number]) return PageDamage{number, "it is in use twice"};
      seen_[number] = true;
    }
    return {};
  }

  // Pages that were freed before they were ever written may be missing at the end of the file.
  Checked CheckEnd() const {
    if (meta_.last_page < file_pages_ + free_beyond_file_) return {};
    return PageDamage{meta_.last_page, "the file ends before it"};
  }

  const DataFile& file_;
  const DataMetaPage& meta_;
  const std::uint64_t page_bytes_;
  const std::uint64_t file_pages_;
  std::vector<bool> seen_;
  std::uint64_t free_beyond_file_ = 0;
  std::vector<std::pair<std::uint64_t, DataTree>> named_trees_;  // with the page that names each
};

}  // namespace

Checked CheckPagesOf(const DataFile& file, const DataMetaPage& meta) { return PageCheck(file, meta).Run(); }

}  // namespace vexa::store
