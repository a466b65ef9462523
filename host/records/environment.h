// What the cluster-control operations stand on: the store, the accounts, and this host's id.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "host/accounts/accounts.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct Environment {
  std::shared_ptr<store::Store> store;
  std::shared_ptr<const base::AccountProvider> accounts;
  std::string host_id;
  std::size_t record_cache_bytes = std::size_t{16} << 20;
  // Where the values of caches lie; made when missing. Empty: none is stored, non-blocking reads give the default
  // value, and blocking ones find the value out each time.
  std::string cache_directory{};
  // How long a blocking read of a cache waits while somebody else refreshes it.
  std::chrono::milliseconds cache_wait = std::chrono::seconds(60);
  // The id of the request that the calling thread works for, empty without one; for entries of the cluster log. Null:
  // they name none.
  std::string_view (*request_id)() = nullptr;
  // The folders below which a guest's drive may find an image that a user names by its path. Empty: no path is valid.
  std::vector<std::string> image_roots{};
};

// Makes the operations of webapi/platform/ccc.h, dr_cache.h and base.h work on `environment`; without one every
// operation fails. Threads: call it while no request runs.
void InstallEnvironment(Environment environment);
void RemoveEnvironment();

// Null when none is installed. Valid until RemoveEnvironment.
const Environment* CurrentEnvironment();

// Rises with every environment that is installed. For what is remembered of one and not of the next.
std::uint64_t EnvironmentNumber();

}  // namespace vexa::cluster
