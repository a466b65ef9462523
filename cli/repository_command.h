// vexa repository: the repositories of guests' disks.
#pragma once

#include <optional>
#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

struct RepositoryAddOptions {
  std::string name;
  std::string id;    // a UUID; empty: a new one
  std::string host;  // the host that has its disks, an id or a name; empty: the one that is asked
};

// Prints the id.
ExitCode RunRepositoryAdd(const GlobalOptions& global, const RepositoryAddOptions& options);

// A table of id, host's id, state, used and total space, and name; with --json the server's list, which also has what
// is known of the storage for administrators: {"folders": {folder: identity}} and, while something is wrong with it,
// "trouble", "not_mounted", "reason" and "since" (Unix seconds).
ExitCode RunRepositoryList(const GlobalOptions& global);

// What the server's `get` reports; with --json unchanged.
ExitCode RunRepositoryGet(const GlobalOptions& global, const std::string& repository);

struct RenameOptions {
  std::string object;  // an id or a name
  std::string name;
};
ExitCode RunRepositoryRename(const GlobalOptions& global, const RenameOptions& options);

struct RepositoryLimitsOptions {
  std::string repository;   // an id or a name
  std::optional<int> soft;  // percent; not set: the setting of the repository's host
  std::optional<int> hard;
};
ExitCode RunRepositoryLimits(const GlobalOptions& global, const RepositoryLimitsOptions& options);

// `repository`: an id or a name.
ExitCode RunRepositoryRemove(const GlobalOptions& global, const std::string& repository);

// Accepts the current storage of the repository, after it was replaced for good.
ExitCode RunRepositoryAccept(const GlobalOptions& global, const std::string& repository);

}  // namespace vexa::cli
