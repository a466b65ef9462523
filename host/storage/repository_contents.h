// What is in a repository: guests, their disks with the space that these take, and files that no record names.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/base/result.h"
#include "host/storage/bounded_calls.h"
#include "host/storage/repository_records.h"
#include "host/store/store.h"

namespace vexa::storage {

struct ContainedDisk {
  std::string id;
  std::string path;
  std::uint64_t size_mib = 0;              // as its guest sees it
  std::optional<std::uint64_t> allocated;  // bytes that its file takes; not set: this host cannot examine it
};

struct ContainedGuest {
  std::string id;    // "" for disks without a guest
  std::string name;  // the same, or the record has none
  std::vector<ContainedDisk> disks;
};

struct ContainedFile {
  std::string path;
  std::uint64_t size = 0;       // bytes
  std::uint64_t allocated = 0;  // bytes
};

struct RepositoryContents {
  ListedRepository repository;
  std::vector<ContainedGuest> guests;  // by id
  // Only on the repository's own host, when its file system answers in time: files in the repository's folders that no
  // record names, at most kMaxListedFiles.
  std::optional<std::vector<ContainedFile>> files;
};

inline constexpr std::size_t kMaxListedFiles = 1000;

// Threads: any, at the same time. A file system that hangs never delays a caller for longer than the timeout.
class RepositoryReader {
 public:
  RepositoryReader(std::string host_id, std::vector<std::string> roots,
                   std::chrono::milliseconds timeout = std::chrono::seconds(2));

  // Refusals: kNotFoundOrUnreadable (there is no such repository), kRecordFailed.
  Result<RepositoryContents, Refusal> Read(store::Store& store, const std::string& repository_id);

 private:
  void Measure(RepositoryContents& contents, std::vector<std::string> paths);

  const std::string host_id_;
  const std::vector<std::string> roots_;
  BoundedCalls calls_;
};

}  // namespace vexa::storage
