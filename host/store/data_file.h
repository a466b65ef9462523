// The layout of LMDB's data file (format version 1), and making and reading it without LMDB.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "host/base/descriptor.h"
#include "host/base/result.h"

namespace vexa::store {

// The numbers and flags are those of mdb_stat(1) and lmdb.h.
struct DataTree {
  std::uint32_t page_bytes;  // of the file in the first tree, 0 in the others
  std::uint16_t flags;
  std::uint16_t depth;
  std::uint64_t branch_pages;
  std::uint64_t leaf_pages;
  std::uint64_t overflow_pages;
  std::uint64_t entries;
  std::uint64_t root;
};

struct DataPageHeader {
  std::uint64_t number;
  std::uint16_t pad;
  std::uint16_t flags;
  std::uint16_t lower;  // together with `upper`, the number of pages of an overflow run
  std::uint16_t upper;
};

// The file begins with two of them. Commits write them in turn, so the one with the greater transaction is valid, and
// the other one is the state before.
struct DataMetaPage {
  DataPageHeader header;
  std::uint32_t magic;
  std::uint32_t version;
  std::uint64_t address;
  std::uint64_t map_bytes;
  DataTree free_pages;  // transaction -> the pages that it has freed
  DataTree main;        // name -> a tree of ours
  std::uint64_t last_page;
  std::uint64_t transaction;
};
static_assert(sizeof(DataPageHeader) == 16 && sizeof(DataTree) == 48 && sizeof(DataMetaPage) == 152);

inline constexpr std::uint32_t kDataMagic = 0xBEEFC0DE;
inline constexpr std::uint32_t kDataVersion = 1;
inline constexpr std::uint64_t kNoDataPage = ~std::uint64_t{0};
inline constexpr std::uint16_t kBranchPage = 0x01;
inline constexpr std::uint16_t kLeafPage = 0x02;
inline constexpr std::uint16_t kOverflowPage = 0x04;
inline constexpr std::uint16_t kMetaPage = 0x08;
inline constexpr std::uint16_t kMaxTreeDepth = 32;
inline constexpr std::uint16_t kIntegerKeys = 0x08;  // of the tree of free pages

// Makes the data file of an empty store, exactly as LMDB does for a map of this size. LMDB writes it in place and syncs
// it with the first commit, so that a power failure could leave half of it; this file is there whole or not at all.
// Replaces an existing file. Errors: those of WriteFileAtomically.
Status CreateDataFile(const std::string& path, std::uint64_t map_bytes);

// Threads: any, at the same time.
class DataFile {
 public:
  explicit DataFile(const std::string& path);

  bool open() const { return fd_.get() >= 0; }
  // errno of the last call that failed, so that a disk that cannot be read is not taken for a damaged file; 0: none
  // has. Reading beyond the end of the file is not such a failure.
  int error() const { return error_; }
  // 0 when it cannot be found out.
  std::uint64_t size() const;
  // False: the file cannot be read, or ends before.
  bool ReadBytes(std::uint64_t offset, char* out, std::size_t bytes) const;
  template <class T>
  bool Read(std::uint64_t offset, T& out) const {
    return ReadBytes(offset, reinterpret_cast<char*>(&out), sizeof out);
  }

 private:
  Descriptor fd_;
  mutable std::atomic<int> error_{0};
};

}  // namespace vexa::store
