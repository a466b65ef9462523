// Runs a program as the service manager would run it, as far as that works without one: with the capabilities,
// limits and system calls of a unit. The account, the mount namespace and the control group stay those of the caller.
//
// usage: confined UNIT [DROP-IN…] -- PROGRAM [ARGUMENT…]
#include <cap-ng.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "tests/tools/unit_filters.h"

namespace {

using vexa::test::FailToConfine;
using vexa::test::UnitFile;

// A caller that may not raise a limit keeps the one that it has.
void SetLimit(const UnitFile& unit, const std::string& setting, __rlimit_resource resource) {
  const std::string value = unit.Last(setting);
  if (value.empty()) return;
  const rlim_t wanted = std::stoul(value);
  rlimit limit{.rlim_cur = wanted, .rlim_max = wanted};
  if (::setrlimit(resource, &limit) == 0) return;
  const bool is_known = ::getrlimit(resource, &limit) == 0;
  limit.rlim_cur = limit.rlim_max = std::min(wanted, limit.rlim_max);
  if (!is_known || ::setrlimit(resource, &limit) != 0) FailToConfine("Cannot set " + setting + ".");
}

// "CAP_NET_ADMIN" is "net_admin" to libcap-ng.
void AllowCapability(const std::string& name) {
  std::string lower = name.substr(name.find('_') + 1);
  std::ranges::transform(lower, lower.begin(), [](unsigned char c) { return std::tolower(c); });
  const int capability = capng_name_to_capability(lower.c_str());
  if (capability < 0) FailToConfine("Unknown capability: " + name + ".");
  (void)capng_updatev(CAPNG_ADD, static_cast<capng_type_t>(CAPNG_EFFECTIVE | CAPNG_PERMITTED | CAPNG_BOUNDING_SET),
                      capability, -1);
}

void DropCapabilities(const UnitFile& unit) {
  if (!unit.Has("CapabilityBoundingSet")) FailToConfine("CapabilityBoundingSet= is not set.");
  const bool has_ambient = !unit.Has("AmbientCapabilities") || !unit.Values("AmbientCapabilities").empty();
  if (has_ambient) FailToConfine("AmbientCapabilities= is not empty.");
  // Only who has rights can give up the bounding set; no_new_privs keeps everybody else from using it.
  const bool has_rights = capng_get_caps_process() == 0 && capng_have_capability(CAPNG_EFFECTIVE, CAP_SETPCAP) == 1;
  capng_clear(CAPNG_SELECT_ALL);
  for (const std::string& value : unit.Values("CapabilityBoundingSet")) {
    for (const std::string& name : vexa::test::WordsOf(value)) AllowCapability(name);
  }
  if (capng_apply(has_rights ? CAPNG_SELECT_ALL : CAPNG_SELECT_CAPS) != 0) FailToConfine("Cannot drop capabilities.");
}

}  // namespace

int main(int argc, char** argv) {
  int program = 1;
  std::vector<std::string> files;
  while (program < argc && std::strcmp(argv[program], "--") != 0) files.emplace_back(argv[program++]);
  if (files.empty() || ++program >= argc) FailToConfine("usage: confined UNIT [DROP-IN…] -- PROGRAM [ARGUMENT…]");
  const UnitFile unit(files);
  const std::set<std::string> allowed_calls = AllowedCalls(unit);
  SetLimit(unit, "LimitCORE", RLIMIT_CORE);
  SetLimit(unit, "LimitNOFILE", RLIMIT_NOFILE);
  ::umask(static_cast<mode_t>(std::stoul(unit.Last("UMask"), nullptr, 8)));
  DropCapabilities(unit);
  if (!unit.IsOn("NoNewPrivileges") || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
    FailToConfine("NoNewPrivileges= is not set.");
  LoadFilters(unit, allowed_calls);
  ::execv(argv[program], argv + program);
  FailToConfine(std::string("Cannot run ") + argv[program] + ": " + std::strerror(errno));
}
