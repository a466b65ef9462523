#include "host/daemon/host_id.h"

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
    return Error(ErrorCode::kCorrupt,
                 "'" + path + "' does not contain a UUID. Restore it, or remove it to give this host a new id");
  }
  if (stored.error().code() != ErrorCode::kNotFound) return stored.error();
  Result<std::string> id = RandomUuid();
  if (!id) return id;
  const Status written = WriteFileAtomically(path, *id + "\n", 0600);
  if (!written) return written.error();
  return id;
}

Result<cluster::ClaimIdentity> IdentityOfHost(const std::string& data_directory) {
  Result<std::string> place = cluster::PlaceOf(data_directory + "/host-id");
  if (!place) return place.error();
  cluster::ClaimIdentity identity;
  identity.place = std::move(*place);
  identity.boot = cluster::BootId();
  std::array<char, 257> name{};
  if (::gethostname(name.data(), name.size() - 1) == 0) identity.name = name.data();
  for (const services::Interface& found : services::HostInterfaces(services::Machine())) {
    std::string address = services::SystemPermanentMac(found.name);
    if (!address.empty()) identity.addresses.push_back(std::move(address));
  }
  return identity;
}

}  // namespace vexa::daemon
