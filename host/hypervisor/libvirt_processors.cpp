// The processors that guests use: their weights, and on which ones their threads run.
#include <fmt/format.h>
#include <unistd.h>

#include <string_view>
#include <vector>

#include "host/base/uuid.h"
#include "host/hypervisor/libvirt_hypervisor.h"
#include "host/hypervisor/qemu_process.h"

namespace vexa::hypervisor {
namespace {

constexpr std::int64_t kMaxWeight = 262'144;
constexpr std::int64_t kMaxWeightOfUnifiedCgroups = 10'000;

// As virDomainPinVcpu wants it: a bit for each processor.
std::vector<unsigned char> BitsOf(const domain_xml::CpuSet& cpus) {
  std::vector<unsigned char> bits;
  for (const unsigned cpu : cpus) {
    bits.resize(cpu / 8 + 1);  // in ascending order
    bits[cpu / 8] = static_cast<unsigned char>(bits[cpu / 8] | (1U << (cpu % 8)));
  }
  return bits;
}

}  // namespace

domain_xml::CpuShares LibvirtHypervisor::CpuSharesSupport() const {
  if (target_.IsUnprivileged()) return domain_xml::CpuShares::kOmitted;
  const std::shared_ptr<virConnect> current = connection_->Current();
  const MutexLock lock(shares_mutex_);
  const bool lacks_group = current && without_cpu_group_.lock() == current;
  return lacks_group ? domain_xml::CpuShares::kNoController : domain_xml::CpuShares::kAllowed;
}

std::int64_t LibvirtHypervisor::MaxCpuWeight() const {
  if (target_.IsUnprivileged()) return 0;
  if (target_.kind == DriverKind::kTest) return kMaxWeight;
  // Another machine can have either version, and weights up to 10000 are valid in both.
  const bool is_here = target_.uri.find(":///") != std::string::npos;
  const bool is_unified = ::access("/sys/fs/cgroup/cgroup.controllers", F_OK) == 0;
  return is_here && !is_unified ? kMaxWeight : kMaxWeightOfUnifiedCgroups;
}

Result<std::int64_t, Failure> LibvirtHypervisor::CpuWeightOf(const std::string& id) {
  const std::string failed = fmt::format("Cannot read the CPU weight of the guest {}", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  virDomain* const domain = guest->domain.get();
  int count = 0;
  const StringHandle scheduler(virDomainGetSchedulerType(domain, &count));
  // Not kRead: without cgroups, this is an invalid operation on a guest that runs.
  if (!scheduler || count <= 0) return GuestFailure(*guest, Operation::kSuspend, failed);
  std::vector<virTypedParameter> parameters(static_cast<std::size_t>(count));
  if (virDomainGetSchedulerParametersFlags(domain, parameters.data(), &count, VIR_DOMAIN_AFFECT_LIVE) != 0) {
    return GuestFailure(*guest, Operation::kSuspend, failed);
  }
  unsigned long long weight = 0;
  const int found = virTypedParamsGetULLong(parameters.data(), count, VIR_DOMAIN_SCHEDULER_CPU_SHARES, &weight);
  if (found != 1) return Failure(FailureKind::kUnsupported, failed, "libvirt does not report one");
  return static_cast<std::int64_t>(weight);
}

Result<void, Failure> LibvirtHypervisor::SetAffinity(const std::string& id, const CpuAffinity& affinity) {
  const std::string failed = fmt::format("Cannot move the guest {} to other processors", id);
  const Result<DomainOnConnection, Failure> guest = FindRunning(id, failed);
  if (!guest) return guest.error();
  virDomain* const domain = guest->domain.get();
  const int vcpus = virDomainGetVcpusFlags(domain, VIR_DOMAIN_AFFECT_LIVE);
  if (vcpus < 0) return GuestFailure(*guest, Operation::kSuspend, failed);
  for (unsigned vcpu = 0; vcpu < static_cast<unsigned>(vcpus); ++vcpu) {
    const bool is_pinned = vcpu < affinity.pinned.size();
    std::vector<unsigned char> bits = BitsOf(is_pinned ? domain_xml::CpuSet{affinity.pinned[vcpu]} : affinity.vcpus);
    // Of a running guest, as it runs. The test driver does not know flags for this.
    if (virDomainPinVcpu(domain, vcpu, bits.data(), static_cast<int>(bits.size())) != 0) {
      return GuestFailure(*guest, Operation::kSuspend, failed);
    }
  }
  std::vector<unsigned char> bits = BitsOf(affinity.emulator);
  if (virDomainPinEmulator(domain, bits.data(), static_cast<int>(bits.size()), VIR_DOMAIN_AFFECT_LIVE) != 0) {
    return GuestFailure(*guest, Operation::kSuspend, failed);
  }
  // Without cgroups, libvirt moves only the first of these threads.
  const bool is_here = target_.kind == DriverKind::kEmbed ||
                       (target_.kind == DriverKind::kUri && target_.uri.find(":///") != std::string::npos);
  if (!is_here) return {};
  const Result<StringHandle, Failure> xml = RunningXml(*guest, failed);
  if (!xml) return xml.error();
  MoveHelperThreads(NormalizeUuid(id), target_.root, OwnerOfQemu(xml->get()), affinity.emulator);
  return {};
}

}  // namespace vexa::hypervisor
