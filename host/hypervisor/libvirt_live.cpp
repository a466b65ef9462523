// Changes of running guests.
#include <fmt/format.h>

#include "host/base/uuid.h"
#include "host/hypervisor/libvirt_hypervisor.h"

namespace vexa::hypervisor {

// Serialised with starts and stops of the guest like every call that uses its monitor.
Result<void, Failure> LibvirtHypervisor::ChangeRunning(const std::string& id, const std::string& message,
                                                       const std::function<int(virDomainPtr)>& act) {
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, message);
  if (!guest) return guest.error();
  const GuestOperationLocks::Lock lock(guest_locks_, NormalizeUuid(id));
  if (act(guest->domain.get()) >= 0) return {};
  return GuestFailure(*guest, Operation::kSuspend, message);
}

Result<void, Failure> LibvirtHypervisor::SetVcpus(const std::string& id, unsigned count) {
  return ChangeRunning(
      id, fmt::format("Cannot give the guest {} {} virtual CPUs", id, count),
      [=](virDomainPtr domain) { return virDomainSetVcpusFlags(domain, count, VIR_DOMAIN_VCPU_LIVE); });
}

Result<void, Failure> LibvirtHypervisor::SetCpuShares(const std::string& id, std::uint64_t shares) {
  const std::string failed = fmt::format("Cannot set the CPU weight of the guest {}", id);
  return ChangeRunning(id, failed, [=](virDomainPtr domain) {
    virTypedParameterPtr parameters = nullptr;
    int count = 0;
    int capacity = 0;
    int done = virTypedParamsAddULLong(&parameters, &count, &capacity, VIR_DOMAIN_SCHEDULER_CPU_SHARES, shares);
    if (done == 0) {
      done = virDomainSetSchedulerParametersFlags(domain, parameters, count, VIR_DOMAIN_AFFECT_LIVE);
    }
    virTypedParamsFree(parameters, count);
    return done;
  });
}

Result<void, Failure> LibvirtHypervisor::AttachDevice(const std::string& id, const std::string& xml) {
  return ChangeRunning(id, fmt::format("Cannot add the device to the guest {}", id), [&](virDomainPtr domain) {
    return virDomainAttachDeviceFlags(domain, xml.c_str(), VIR_DOMAIN_AFFECT_LIVE);
  });
}

Result<void, Failure> LibvirtHypervisor::DetachDevice(const std::string& id, const std::string& xml) {
  return ChangeRunning(id, fmt::format("Cannot remove the device from the guest {}", id), [&](virDomainPtr domain) {
    return virDomainDetachDeviceFlags(domain, xml.c_str(), VIR_DOMAIN_AFFECT_LIVE);
  });
}

Result<void, Failure> LibvirtHypervisor::UpdateDevice(const std::string& id, const std::string& xml, Eject eject) {
  unsigned flags = VIR_DOMAIN_DEVICE_MODIFY_LIVE;
  if (eject == Eject::kForced) flags |= VIR_DOMAIN_DEVICE_MODIFY_FORCE;
  return ChangeRunning(id, fmt::format("Cannot change the device of the guest {}", id),
                       [&](virDomainPtr domain) { return virDomainUpdateDeviceFlags(domain, xml.c_str(), flags); });
}

Result<void, Failure> LibvirtHypervisor::ResizeDisk(const std::string& id, const std::string& disk,
                                                    std::uint64_t bytes) {
  return ChangeRunning(id, fmt::format("Cannot resize the disk of the guest {}", id), [&](virDomainPtr domain) {
    return virDomainBlockResize(domain, disk.c_str(), bytes, VIR_DOMAIN_BLOCK_RESIZE_BYTES);
  });
}

Result<std::uint64_t, Failure> LibvirtHypervisor::SizeOfDisk(const std::string& id, const std::string& disk) {
  const std::string failed = fmt::format("Cannot read the size of the disk of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  virDomainBlockInfo info{};
  if (virDomainGetBlockInfo(guest->domain.get(), disk.c_str(), &info, 0) == 0) return info.capacity;
  return GuestFailure(*guest, Operation::kRead, failed);
}

}  // namespace vexa::hypervisor
