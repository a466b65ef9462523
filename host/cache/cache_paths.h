// Where a cached value is stored on disk, and how it is replaced.
//
//   <cache folder>/<group>/<name>.json         the record, 0600
//   <cache folder>/<group>/<name>.json.??????  a record that is being written; a killed writer leaves it behind
//   <cache folder>/<group>/<name>.lock         locked with flock(2) while the value is refreshed
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

inline constexpr std::size_t kMaxCacheBytes = std::size_t{256} << 20;

struct CachePaths {
  std::string folder;
  std::string record;
  std::string lock;
};

// Empty when the value must not be stored: `directory` is empty, or `group` or `name` is not a plain word (1 to 64
// letters, digits, underscores and hyphens).
std::optional<CachePaths> PathsOfCache(const std::string& directory, std::string_view group, std::string_view name);

// Replaces the record atomically and removes files that killed writers left behind. The caller must hold the lock. On
// failure the old record stays. Not synced: a record torn by a power failure counts as missing.
Status ReplaceCacheFile(const CachePaths& paths, std::string_view text);

}  // namespace vexa::cluster
