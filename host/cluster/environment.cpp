#include "host/cluster/environment.h"

#include <optional>
#include <utility>

#include "host/accounts/current_accounts.h"
#include "host/cluster/environment_internal.h"

namespace vexa::cluster {
namespace {

struct Installed {
  explicit Installed(Environment given) : environment(std::move(given)), records(environment.record_cache_bytes) {}
  Environment environment;
  RecordCache records;
  ClusterStatus status;
  CacheMemory caches;
};

std::optional<Installed> installed;

}  // namespace

void InstallEnvironment(Environment environment) {
  base::InstallAccounts(environment.accounts);
  installed.emplace(std::move(environment));
}

void RemoveEnvironment() {
  base::InstallAccounts(nullptr);
  installed.reset();
}

const Environment* CurrentEnvironment() { return installed ? &installed->environment : nullptr; }

RecordCache& CurrentRecordCache() { return installed->records; }

ClusterStatus& CurrentClusterStatus() { return installed->status; }
CacheMemory& CurrentCacheMemory() { return installed->caches; }

}  // namespace vexa::cluster
