// What the cluster-control operations of this process work on: the store, the accounts, and this host's id.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/store/store.h"

namespace vexa::records {

struct Environment {
  std::shared_ptr<store::Store> store;
  std::shared_ptr<const accounts::AccountProvider> accounts;
  std::string host_id;
  // The memory for parsed records, as RecordCache estimates it.
  std::size_t record_cache_bytes = std::size_t{16} << 20;
  // The folder for the stored values of caches; created when missing. Empty: nothing is stored, non-blocking reads
  // return the default value, and blocking reads compute the value each time.
  std::string cache_directory{};
  // How long a blocking read of a cache waits for a refresh by another caller.
  std::chrono::milliseconds cache_wait = std::chrono::seconds(60);
  // Returns the id of the request that the calling thread works for, empty without one; for entries of the cluster log.
  // Null: entries have no request id.
  std::string_view (*request_id)() = nullptr;
  // Returns the user in whose name the calling thread acts, for log lines about rights; empty when it acts for no user.
  // Null: the lines name no user.
  std::string_view (*acting_user)() = nullptr;
  // Folders of images: a user may name an image for a guest's drive by its path when the file is below one of them.
  // Empty: no path is valid.
  std::vector<std::string> image_roots{};
};

// Makes the operations of webapi/platform/ccc.h, dr_cache.h and base.h use `environment`; without one, every operation
// fails. Threads: call it while no request runs.
void InstallEnvironment(Environment environment);
void RemoveEnvironment();

// Null when none is installed. Valid until RemoveEnvironment.
const Environment* CurrentEnvironment();

// Increases with every environment that is installed. Identifies data that must not be carried over to the next
// environment.
std::uint64_t EnvironmentGeneration();

}  // namespace vexa::records
