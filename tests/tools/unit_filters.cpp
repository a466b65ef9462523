#include "tests/tools/unit_filters.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <seccomp.h>
#include <sys/mman.h>
#include <sys/personality.h>
#include <sys/shm.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdint>
#include <utility>

namespace vexa::test {
namespace {

// One filter. The kernel applies all filters of a process, and the strictest answer counts.
class Filter {
 public:
  explicit Filter(std::uint32_t otherwise) : context_(seccomp_init(otherwise)) {
    if (context_ == nullptr) FailToConfine("There is no memory for a filter.");
  }
  ~Filter() { seccomp_release(context_); }
  Filter(const Filter&) = delete;
  Filter& operator=(const Filter&) = delete;

  void Add(std::uint32_t action, int call, const std::vector<scmp_arg_cmp>& arguments = {}) {
    const int failed = seccomp_rule_add_array(context_, action, call, static_cast<unsigned>(arguments.size()),
                                              arguments.empty() ? nullptr : arguments.data());
    if (failed != 0) FailToConfine("A rule cannot be added for the system call " + std::to_string(call) + ".");
  }
  void Load() {
    if (seccomp_load(context_) != 0) FailToConfine("A filter cannot be loaded.");
  }

 private:
  scmp_filter_ctx context_;
};

constexpr std::uint32_t kDenied = SCMP_ACT_ERRNO(EPERM);

scmp_arg_cmp HasBits(unsigned argument, std::uint64_t bits) { return {argument, SCMP_CMP_MASKED_EQ, bits, bits}; }

scmp_arg_cmp Compare(unsigned argument, scmp_compare comparison, int value) {
  return {argument, comparison, static_cast<scmp_datum_t>(value), 0};
}

int FamilyNumber(const std::string& name) {
  static const std::map<std::string, int> kFamilies = {
      {"AF_UNIX", AF_UNIX},       {"AF_INET", AF_INET},   {"AF_INET6", AF_INET6},
      {"AF_NETLINK", AF_NETLINK}, {"AF_VSOCK", AF_VSOCK},
  };
  const auto family = kFamilies.find(name);
  if (family == kFamilies.end()) FailToConfine("Unknown address family: " + name);
  return family->second;
}

void RestrictFamilies(const UnitFile& unit) {
  std::set<int> allowed;
  for (const std::string& value : unit.Values("RestrictAddressFamilies")) {
    for (const std::string& name : WordsOf(value)) allowed.insert(FamilyNumber(name));
  }
  Filter filter(SCMP_ACT_ALLOW);
  const std::uint32_t refused = SCMP_ACT_ERRNO(EAFNOSUPPORT);
  for (int family = 0; family < AF_MAX; ++family) {
    if (!allowed.contains(family)) filter.Add(refused, SCMP_SYS(socket), {Compare(0, SCMP_CMP_EQ, family)});
  }
  filter.Add(refused, SCMP_SYS(socket), {Compare(0, SCMP_CMP_GE, AF_MAX)});
  filter.Load();
}

void DenyWriteExecute() {
  Filter filter(SCMP_ACT_ALLOW);
  filter.Add(kDenied, SCMP_SYS(mmap), {HasBits(2, PROT_WRITE | PROT_EXEC)});
  filter.Add(kDenied, SCMP_SYS(mprotect), {HasBits(2, PROT_EXEC)});
  filter.Add(kDenied, SCMP_SYS(pkey_mprotect), {HasBits(2, PROT_EXEC)});
  filter.Add(kDenied, SCMP_SYS(shmat), {HasBits(2, SHM_EXEC)});
  filter.Load();
}

// The flags of clone3 are in memory, where no filter sees them, so it is missing altogether: callers use clone then.
void DenyNamespaces() {
  Filter filter(SCMP_ACT_ALLOW);
  for (const std::uint64_t flag : {std::uint64_t{CLONE_NEWCGROUP}, std::uint64_t{CLONE_NEWIPC},
                                   std::uint64_t{CLONE_NEWNET}, std::uint64_t{CLONE_NEWNS}, std::uint64_t{CLONE_NEWPID},
                                   std::uint64_t{CLONE_NEWUSER}, std::uint64_t{CLONE_NEWUTS}}) {
    filter.Add(kDenied, SCMP_SYS(unshare), {HasBits(0, flag)});
    filter.Add(kDenied, SCMP_SYS(clone), {HasBits(0, flag)});
  }
  filter.Add(kDenied, SCMP_SYS(setns));
  filter.Add(SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(clone3));
  filter.Load();
}

// The same is true of openat2 and its mode.
void DenySetIdFiles() {
  Filter filter(SCMP_ACT_ALLOW);
  for (const std::uint64_t bit : {std::uint64_t{S_ISUID}, std::uint64_t{S_ISGID}}) {
    for (const auto& [call, argument] :
         {std::pair{SCMP_SYS(chmod), 1u}, std::pair{SCMP_SYS(fchmod), 1u}, std::pair{SCMP_SYS(fchmodat), 2u},
          std::pair{SCMP_SYS(mkdir), 1u}, std::pair{SCMP_SYS(mkdirat), 2u}, std::pair{SCMP_SYS(mknod), 1u},
          std::pair{SCMP_SYS(mknodat), 2u}, std::pair{SCMP_SYS(creat), 1u}}) {
      filter.Add(kDenied, call, {HasBits(argument, bit)});
    }
    filter.Add(kDenied, SCMP_SYS(open), {HasBits(1, O_CREAT), HasBits(2, bit)});
    filter.Add(kDenied, SCMP_SYS(openat), {HasBits(2, O_CREAT), HasBits(3, bit)});
  }
  filter.Add(SCMP_ACT_ERRNO(ENOSYS), SCMP_SYS(openat2));
  filter.Load();
}

void DenyRealtime() {
  Filter filter(SCMP_ACT_ALLOW);
  for (const int policy : {SCHED_FIFO, SCHED_RR, 6 /* SCHED_DEADLINE */}) {
    filter.Add(kDenied, SCMP_SYS(sched_setscheduler), {Compare(1, SCMP_CMP_EQ, policy)});
  }
  filter.Load();
}

void LockPersonality() {
  Filter filter(SCMP_ACT_ALLOW);
  filter.Add(kDenied, SCMP_SYS(personality), {Compare(0, SCMP_CMP_NE, PER_LINUX)});
  filter.Load();
}

void AllowOnly(const UnitFile& unit, const std::set<std::string>& allowed_calls) {
  if (unit.Last("SystemCallErrorNumber") != "EPERM") FailToConfine("SystemCallErrorNumber= is not EPERM.");
  Filter filter(kDenied);
  for (const std::string& name : allowed_calls) {
    const int call = seccomp_syscall_resolve_name(name.c_str());
    // Negative: a call of another architecture, as the groups have them.
    if (call >= 0) filter.Add(SCMP_ACT_ALLOW, call);
  }
  filter.Load();
}

}  // namespace

void LoadFilters(const UnitFile& unit, const std::set<std::string>& allowed_calls) {
  // By default a filter of libseccomp ends a process that uses another architecture's calls.
  if (unit.Last("SystemCallArchitectures") != "native") FailToConfine("SystemCallArchitectures= is not native.");
  if (unit.Has("RestrictAddressFamilies")) RestrictFamilies(unit);
  if (unit.IsOn("MemoryDenyWriteExecute")) DenyWriteExecute();
  if (unit.IsOn("RestrictNamespaces")) DenyNamespaces();
  if (unit.IsOn("RestrictSUIDSGID")) DenySetIdFiles();
  if (unit.IsOn("RestrictRealtime")) DenyRealtime();
  if (unit.IsOn("LockPersonality")) LockPersonality();
  // The last one, because it forbids loading another.
  AllowOnly(unit, allowed_calls);
}

}  // namespace vexa::test
