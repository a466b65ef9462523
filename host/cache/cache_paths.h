// Where a cached value lies on disk, and how it is replaced.
//
//   <cache folder>/<group>/<name>.json         the record, 0600
//   <cache folder>/<group>/<name>.json.??????  a record that is being written; a killed writer leaves it
//   <cache folder>/<group>/<name>.lock         locked, flock(2), by whoever finds the value out anew
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

// Nothing when the value is not to be stored: `directory` is empty, or `group` or `name` is no plain word (1 to 64
// letters, digits, underscores and hyphens).
std::optional<CachePaths> PathsOfCache(const std::string& directory, std::string_view group, std::string_view name);

// Replaces the record at once, and removes what killed writers have left. Only for who holds the lock. A failure leaves
// the old record. Not synced: a record that a power failure tore counts as none.
Status ReplaceCacheFile(const CachePaths& paths, std::string_view text);

}  // namespace vexa::cluster
