// What the cluster-control operations stand on: the store, the accounts, and this host's id.
#pragma once

#include <memory>
#include <string>

#include "host/base/accounts.h"
#include "host/store/store.h"

namespace vexa::cluster {

struct Environment {
  std::shared_ptr<store::Store> store;
  std::shared_ptr<const base::AccountProvider> accounts;
  std::string host_id;
  std::size_t record_cache_bytes = std::size_t{16} << 20;
};

// Makes the operations of webapi/platform/ccc.h, dr_cache.h and base.h work on `environment`; without one every
// operation fails. Threads: call it while no request runs.
void InstallEnvironment(Environment environment);
void RemoveEnvironment();

// Null when none is installed. Valid until RemoveEnvironment.
const Environment* CurrentEnvironment();

}  // namespace vexa::cluster
