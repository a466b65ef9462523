#include "host/store/tree_page.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <optional>

#include "host/store/key.h"

namespace vexa::store {
namespace {

constexpr std::uint16_t kOverflowEntry = 0x01;
constexpr std::uint16_t kTreeEntry = 0x02;

struct EntryHeader {
  std::uint16_t low;   // of the value's size, or of a child's page number
  std::uint16_t high;  // the next 16 bits
  std::uint16_t flags;
  std::uint16_t key_bytes;
};
static_assert(sizeof(EntryHeader) == 8);

struct PlacedEntry {
  std::size_t offset = 0;
  std::size_t bytes = 0;
};

template <class T>
T Load(const char* from) {
  T value{};
  std::memcpy(&value, from, sizeof value);
  return value;
}

class PageReader {
 public:
  PageReader(std::span<const char> bytes, std::uint64_t number)
      : bytes_(bytes), number_(number), header_(Load<DataPageHeader>(bytes.data())) {}

  Result<TreePage, PageDamage> Read() {
    if (header_.number != number_) return Damage(fmt::format("it has the number {}", header_.number));
    if (header_.flags != kBranchPage && header_.flags != kLeafPage) {
      return Damage(fmt::format("it has the flags {:#x}", header_.flags));
    }
    const bool has_valid_room = header_.lower >= sizeof(DataPageHeader) && header_.lower % 2 == 0 &&
                                header_.lower <= header_.upper && header_.upper <= bytes_.size();
    const std::size_t count = has_valid_room ? (header_.lower - sizeof(DataPageHeader)) / 2 : 0;
    if (count == 0) return Damage(fmt::format("its room is from {} to {}", header_.lower, header_.upper));
    TreePage page;
    page.is_branch = header_.flags == kBranchPage;
    page.entries.reserve(count);
    std::vector<PlacedEntry> placed;
    placed.reserve(count);
    for (std::size_t i = 0; i < count; ++i) {
      const auto offset = Load<std::uint16_t>(bytes_.data() + sizeof(DataPageHeader) + 2 * i);
      const std::optional<TreeEntry> entry = ReadEntry(offset, page.is_branch, i == 0, placed);
      if (!entry) return Damage(fmt::format("its entry {} at {} does not fit", i, offset));
      page.entries.push_back(*entry);
    }
    if (!FillsRoom(placed)) return Damage("its entries overlap, or leave gaps");
    return page;
  }

 private:
  PageDamage Damage(std::string what) const { return {number_, std::move(what)}; }

  std::optional<TreeEntry> ReadEntry(std::size_t offset, bool is_branch, bool is_first,
                                     std::vector<PlacedEntry>& placed) const {
    if (offset < header_.upper || offset + sizeof(EntryHeader) > bytes_.size()) return std::nullopt;
    const auto header = Load<EntryHeader>(bytes_.data() + offset);
    TreeEntry entry;
    // Only the first key of a branch page may be empty: it stands for all keys below the second.
    const bool has_key = header.key_bytes > 0 || (is_branch && is_first);
    if (!has_key || header.key_bytes > kMaxKeyBytes) return std::nullopt;
    std::size_t in_page = 0;
    entry.value_bytes = header.low | static_cast<std::uint64_t>(header.high) << 16;
    if (is_branch) {
      entry.kind = EntryKind::kChild;
      entry.page = entry.value_bytes | static_cast<std::uint64_t>(header.flags) << 32;
    } else if (header.flags == kOverflowEntry) {
      entry.kind = EntryKind::kOverflow;
      in_page = sizeof entry.page;
    } else if (header.flags == 0 || (header.flags == kTreeEntry && entry.value_bytes == sizeof(DataTree))) {
      entry.kind = header.flags == 0 ? EntryKind::kValue : EntryKind::kTree;
      in_page = entry.value_bytes;
    } else {
      return std::nullopt;
    }
    const std::size_t used = sizeof(EntryHeader) + header.key_bytes + in_page;
    if (used > bytes_.size() - offset) return std::nullopt;
    const char* const key = bytes_.data() + offset + sizeof(EntryHeader);
    entry.key = {key, header.key_bytes};
    entry.value = {key + header.key_bytes, in_page};
    if (entry.kind == EntryKind::kOverflow) entry.page = Load<std::uint64_t>(entry.value.data());
    placed.push_back({offset, used + used % 2});
    return entry;
  }

  // LMDB keeps the entries of a page together at its end. It moves them with sizes that it computes, so a gap or an
  // overlap would make it write beyond the page.
  bool FillsRoom(std::vector<PlacedEntry>& placed) const {
    std::sort(placed.begin(), placed.end(),
              [](const PlacedEntry& a, const PlacedEntry& b) { return a.offset < b.offset; });
    std::size_t at = header_.upper;
    for (const PlacedEntry& entry : placed) {
      if (entry.offset != at) return false;
      at += entry.bytes;
    }
    return at == bytes_.size();
  }

  const std::span<const char> bytes_;
  const std::uint64_t number_;
  const DataPageHeader header_;
};

}  // namespace

Result<TreePage, PageDamage> ParseTreePage(std::span<const char> bytes, std::uint64_t number) {
  return PageReader(bytes, number).Read();
}

}  // namespace vexa::store
