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

namespace vexa::guests {

// When a repository counts as short of space. By default never.
struct SpaceLimits {
  unsigned warning_percent = 0;  // used percentage of its file system; 0: no warning
  unsigned full_percent = 0;     // the same for "full"
  // A file system with more free space than this is neither, whatever the percentage: two percent of 20 TiB are plenty.
  // 0: the percentages alone decide.
  std::uint64_t headroom_gib = 0;
};

// The result for one file system, obtained through a folder on it.
struct FolderCondition {
  std::string folder;
  int error_number = 0;  // errno(3) of the failure; the other members are then unknown
  bool is_read_only = false;
  std::uint64_t used = 0;       // bytes
  std::uint64_t available = 0;  // bytes, for users other than root
};

// Asks each file system once, through the first of `folders` on it: its figures, and whether the folder's entries can
// be read. Nothing is written. Folders that are missing or may not be read are left out: they are judged elsewhere. May
// wait forever for a file system that does not respond.
std::vector<FolderCondition> ProbeFolders(const std::vector<std::string>& folders);

// Whether errno(3) indicates that the file system or what is below it is broken, as opposed to a folder that is missing
// or may not be read.
bool IsFailure(int error_number);

// The worst of the conditions, without a time. `before` is the state found last, "" the first time: an exceeded
// limit counts until the use is two points below it, so that the state does not flap.
std::optional<StorageTrouble> WorstTrouble(const std::vector<FolderCondition>& conditions, const SpaceLimits& limits,
                                           std::string_view before);

// The order of VexaCCC::State::Repo from the best, 0, to the worst; 0 for any other text.
int RepositoryRank(std::string_view state);

// Whether guests can use a repository in this state: "online", "degraded" or "provision_warning".
bool IsUsableRepository(std::string_view state);

}  // namespace vexa::guests
