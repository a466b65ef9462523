#include "host/hypervisor/kvm_probe.h"

#include <fcntl.h>
#include <linux/kvm.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>

#include "host/base/descriptor.h"

namespace vexa::hypervisor {
namespace {

class Mapping {
 public:
  Mapping(std::size_t size, int flags, int fd)
      : size_(size), at_(mmap(nullptr, size, PROT_READ | PROT_WRITE, flags, fd, 0)) {}
  Mapping(const Mapping&) = delete;
  Mapping& operator=(const Mapping&) = delete;
  ~Mapping() {
    if (at_ != MAP_FAILED) munmap(at_, size_);
  }
  void* get() const { return at_ == MAP_FAILED ? nullptr : at_; }

 private:
  std::size_t size_;
  void* at_;
};

constexpr std::size_t kPage = 4096;
constexpr unsigned char kHalt = 0xF4;

// Starts in real mode at address 0.
bool SetRegisters(int vcpu) {
  kvm_sregs segments{};
  if (ioctl(vcpu, KVM_GET_SREGS, &segments) < 0) return false;
  segments.cs.base = 0;
  segments.cs.selector = 0;
  kvm_regs registers{};
  registers.rip = 0;
  registers.rflags = 2;  // the bit that is always set
  return ioctl(vcpu, KVM_SET_SREGS, &segments) == 0 && ioctl(vcpu, KVM_SET_REGS, &registers) == 0;
}

bool RunsToHalt(int kvm, int vcpu) {
  const int size = ioctl(kvm, KVM_GET_VCPU_MMAP_SIZE, 0);
  if (size < static_cast<int>(sizeof(kvm_run))) return false;
  const Mapping shared(static_cast<std::size_t>(size), MAP_SHARED, vcpu);
  const auto* const run = static_cast<const kvm_run*>(shared.get());
  return run != nullptr && SetRegisters(vcpu) && ioctl(vcpu, KVM_RUN, 0) == 0 && run->exit_reason == KVM_EXIT_HLT;
}

}  // namespace

bool KvmWorks(const std::string& device) {
  const Descriptor kvm(open(device.c_str(), O_RDWR | O_CLOEXEC));
  if (kvm.get() < 0 || ioctl(kvm.get(), KVM_GET_API_VERSION, 0) != KVM_API_VERSION) return false;
  const Descriptor machine(ioctl(kvm.get(), KVM_CREATE_VM, 0));
  const Mapping memory(kPage, MAP_SHARED | MAP_ANONYMOUS, -1);
  if (machine.get() < 0 || memory.get() == nullptr) return false;
  std::memset(memory.get(), kHalt, kPage);

  kvm_userspace_memory_region region{};
  region.memory_size = kPage;
  region.userspace_addr = reinterpret_cast<std::uintptr_t>(memory.get());
  if (ioctl(machine.get(), KVM_SET_USER_MEMORY_REGION, &region) < 0) return false;
  const Descriptor vcpu(ioctl(machine.get(), KVM_CREATE_VCPU, 0));
  return vcpu.get() >= 0 && RunsToHalt(kvm.get(), vcpu.get());
}

}  // namespace vexa::hypervisor
