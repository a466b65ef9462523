// The paths of a cache's files, and the replacement of its record.
//
//   <cache folder>/<group>/<name>.json         the record, 0600
//   <cache folder>/<group>/<name>.json.??????  a new record while it is being written; a killed writer leaves it behind
//   <cache folder>/<group>/<name>.lock         locked with flock(2) while the value is refreshed
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cache {

inline constexpr std::size_t kMaxCacheBytes = std::size_t{256} << 20;

struct CachePaths {
  std::string folder;  // of the group
  std::string record;
  std::string lock;
};

// Not set when the value cannot be stored: `directory` is empty, or `group` or `name` is not a plain name (1 to 64
// ASCII letters, digits, underscores and hyphens).
std::optional<CachePaths> PathsOfCache(const std::string& directory, std::string_view group, std::string_view name);

// Replaces the record atomically and removes files that killed writers left behind. The caller must hold the lock. On
// failure the old record stays. The file is not synced: a record torn by a power failure counts as missing.
// Errors: kNoSpace, and kInternal.
Status ReplaceCacheFile(const CachePaths& paths, std::string_view text);

}  // namespace vexa::cache
