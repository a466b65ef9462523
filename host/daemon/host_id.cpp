#include "host/daemon/host_id.h"

#include <fmt/format.h>
#include <unistd.h>

#include <array>

#include "host/base/files.h"
#include "host/base/uuid.h"
#include "host/machine/host_facts.h"
#include "host/machine/interfaces.h"
#include "webapi/platform/ccc.h"

namespace vexa::daemon {

Result<std::string> LoadHostId(const std::string& data_directory) {
  const std::string path = data_directory + "/host-id";
  Result<std::string> stored = ReadFile(path, 4096);
  if (stored) {
    while (!stored->empty() && stored->back() == '\n') stored->pop_back();
    if (VexaCCC::Utils::isUUID(*stored)) return stored;
    return Error(
        ErrorCode::kCorrupt,
        fmt::format("'{}' does not contain a UUID. Restore it, or remove it to give this host a new id", path));
  }
  if (stored.error().code() != ErrorCode::kNotFound) return stored.error();
  Result<std::string> id = RandomUuid();
  if (!id) return id;
  const Status written = WriteFileAtomically(path, *id + "\n", 0600);
  if (!written) return written.error();
  return id;
}

Result<cluster::ClaimIdentity> LoadClaimIdentity(const std::string& data_directory) {
  Result<std::string> data_folder_id = cluster::FileInstanceId(data_directory + "/host-id");
  if (!data_folder_id) return data_folder_id.error();
  cluster::ClaimIdentity identity;
  identity.data_folder_id = std::move(*data_folder_id);
  identity.boot = cluster::BootId();
  std::array<char, 257> name{};
  if (::gethostname(name.data(), name.size() - 1) == 0) identity.name = name.data();
  for (const machine::Interface& found : machine::HostInterfaces(machine::Machine())) {
    std::string address = machine::SystemPermanentMac(found.name);
    if (!address.empty()) identity.addresses.push_back(std::move(address));
  }
  return identity;
}

}  // namespace vexa::daemon
