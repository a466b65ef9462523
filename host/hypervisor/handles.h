// Owning handles for libvirt's objects. For host/hypervisor/*.cpp only.
#pragma once

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>

#include <cstdlib>
#include <memory>

namespace vexa::hypervisor {

struct CloseConnect {
  void operator()(virConnectPtr connection) const { virConnectClose(connection); }
};
struct FreeDomain {
  void operator()(virDomainPtr domain) const { virDomainFree(domain); }
};
struct FreeNetwork {
  void operator()(virNetworkPtr network) const { virNetworkFree(network); }
};
struct FreeString {
  void operator()(char* string) const { std::free(string); }
};
using ConnectHandle = std::unique_ptr<virConnect, CloseConnect>;
using DomainHandle = std::unique_ptr<virDomain, FreeDomain>;
using NetworkHandle = std::unique_ptr<virNetwork, FreeNetwork>;
using StringHandle = std::unique_ptr<char, FreeString>;

}  // namespace vexa::hypervisor
