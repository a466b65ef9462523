// Whether the file systems of a repository's folders work, and how full they are.
//
// Threads: any, at the same time.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/storage/storage_record.h"

namespace vexa::storage {

// When a repository counts as short of space. By default never.
struct SpaceLimits {
  unsigned warning_percent = 0;  // used percentage of its file system; 0: no warning
  unsigned full_percent = 0;     // the same for "full"
  // A file system with more free space than this is neither, whatever the percentage: two percent of 20 TiB are plenty.
  // 0: the percentages alone decide.
  std::uint64_t headroom_gib = 0;
  // Whether the percentage is the repository's own, which counts whatever is free.
  bool is_own_warning = false;
  bool is_own_full = false;

  std::uint64_t warning_headroom_gib() const { return is_own_warning ? 0 : headroom_gib; }
  std::uint64_t full_headroom_gib() const { return is_own_full ? 0 : headroom_gib; }
};

// The condition of one file system, found through a folder on it.
struct FolderCondition {
  std::string folder;
  int error_number = 0;  // errno(3) of the failure; the other members are then unknown
  bool is_read_only = false;
  std::uint64_t used = 0;       // bytes
  std::uint64_t available = 0;  // bytes, for users other than root
};

// Probes each file system once, through the first of `folders` on it: its space, and whether the folder's entries can
// be read. Nothing is written. Folders that are missing or may not be read are left out; CheckFolderChain() evaluates
// them. May wait forever for a file system that does not respond.
std::vector<FolderCondition> ProbeFolders(const std::vector<std::string>& folders);

// Whether errno(3) indicates that the file system or what is below it is broken, as opposed to a folder that is missing
// or may not be read.
bool IsFileSystemFailure(int error_number);

// The problem of the worst condition, without `since`. `before` is the previous state of the repository, "" the first
// time: a limit that was exceeded counts until the usage is two percentage points below it, so that the state does not
// flap.
std::optional<StorageProblem> WorstProblem(const std::vector<FolderCondition>& conditions, const SpaceLimits& limits,
                                           std::string_view before);

// How bad a VexaCCC::State::Repo is, from 0 for the best; 0 for any other string.
int RepositoryRank(std::string_view state);

// Whether guests can use a repository in this state: "online", "degraded" or "provision_warning".
bool IsUsableRepository(std::string_view state);

}  // namespace vexa::storage
