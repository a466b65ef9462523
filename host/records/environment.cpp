#include "host/records/environment.h"

#include <optional>
#include <utility>

#include "host/accounts/current_accounts.h"
#include "host/records/environment_internal.h"

namespace vexa::cluster {
namespace {

struct Installed {
  explicit Installed(Environment given) : environment(std::move(given)), records(environment.record_cache_bytes) {}
  Environment environment;
  RecordCache records;
  ClusterStatus status;
};

std::optional<Installed> installed;
std::uint64_t installed_number = 0;

}  // namespace

void InstallEnvironment(Environment environment) {
  base::InstallAccounts(environment.accounts);
  installed.emplace(std::move(environment));
  ++installed_number;
}

void RemoveEnvironment() {
  base::InstallAccounts(nullptr);
  installed.reset();
}

const Environment* CurrentEnvironment() { return installed ? &installed->environment : nullptr; }

std::uint64_t EnvironmentNumber() { return installed_number; }

RecordCache& CurrentRecordCache() { return installed->records; }

ClusterStatus& CurrentClusterStatus() { return installed->status; }

}  // namespace vexa::cluster
