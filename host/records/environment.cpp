#include "host/records/environment.h"

#include <optional>
#include <utility>

#include "host/accounts/current_accounts.h"
#include "host/records/environment_internal.h"

namespace vexa::records {
namespace {

struct Installed {
  explicit Installed(Environment given) : environment(std::move(given)), records(environment.record_cache_bytes) {}
  Environment environment;
  RecordCache records;
  ClusterStatus status;
};

std::optional<Installed> installed;
std::uint64_t environment_generation = 0;

}  // namespace

void InstallEnvironment(Environment environment) {
  accounts::InstallAccounts(environment.accounts);
  installed.emplace(std::move(environment));
  ++environment_generation;
}

void RemoveEnvironment() {
  accounts::InstallAccounts(nullptr);
  installed.reset();
}

const Environment* CurrentEnvironment() { return installed ? &installed->environment : nullptr; }

std::uint64_t EnvironmentGeneration() { return environment_generation; }

RecordCache& CurrentRecordCache() { return installed->records; }

ClusterStatus& CurrentClusterStatus() { return installed->status; }

}  // namespace vexa::records
