#include "tests/tools/unit_file.h"

#include <seccomp.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <sstream>

namespace vexa::test {
namespace {

// What this launcher applies.
const std::set<std::string> kApplied = {
    "AmbientCapabilities", "CapabilityBoundingSet",   "LimitCORE",
    "LimitNOFILE",         "LockPersonality",         "MemoryDenyWriteExecute",
    "NoNewPrivileges",     "RestrictAddressFamilies", "RestrictNamespaces",
    "RestrictRealtime",    "RestrictSUIDSGID",        "SystemCallArchitectures",
    "SystemCallFilter",    "SystemCallErrorNumber",   "UMask",
};
// What takes the service manager: accounts, mount namespaces, control groups, the life of the service. What these
// forbid by system call filters as well, SystemCallFilter= has to forbid here.
const std::set<std::string> kLeftOut = {
    "DeviceAllow",
    "DevicePolicy",
    "Environment",
    "ExecStart",
    "Group",
    "KeyringMode",
    "KillMode",
    "PrivateDevices",
    "PrivateTmp",
    "ProcSubset",
    "ProtectClock",
    "ProtectControlGroups",
    "ProtectHome",
    "ProtectHostname",
    "ProtectKernelLogs",
    "ProtectKernelModules",
    "ProtectKernelTunables",
    "ProtectProc",
    "ProtectSystem",
    "ReadWritePaths",
    "RemoveIPC",
    "Restart",
    "RestartPreventExitStatus",
    "RuntimeDirectory",
    "RuntimeDirectoryMode",
    "RuntimeDirectoryPreserve",
    "StateDirectory",
    "StateDirectoryMode",
    "SupplementaryGroups",
    "TimeoutStopSec",
    "Type",
    "User",
    "WatchdogSec",
};

using Groups = std::map<std::string, std::set<std::string>>;

// "@name" begins a group, indented lines are its members, "#" begins a comment.
Groups SystemdGroups() {
  const std::unique_ptr<FILE, int (*)(FILE*)> output(
      ::popen("systemd-analyze --no-pager syscall-filter 2>/dev/null", "r"), ::pclose);
  if (!output) FailToConfine("Cannot run systemd-analyze.");
  Groups groups;
  std::string group;
  char line[512];
  while (std::fgets(line, sizeof line, output.get()) != nullptr) {
    const std::vector<std::string> words = WordsOf(line);
    if (words.empty() || words[0].starts_with('#')) continue;
    if (line[0] == '@') {
      group = words[0];
    } else if (!group.empty()) {
      groups[group].insert(words[0]);
    }
  }
  if (!groups.contains("@default")) FailToConfine("systemd-analyze does not list system calls: install systemd.");
  return groups;
}

void AddCalls(const Groups& groups, const std::string& name, std::set<std::string>& calls) {
  if (!name.starts_with('@')) {
    calls.insert(name);
    return;
  }
  const auto group = groups.find(name);
  if (group == groups.end()) FailToConfine("systemd does not know the group " + name + ".");
  for (const std::string& member : group->second) AddCalls(groups, member, calls);
}

}  // namespace

void FailToConfine(const std::string& sentence) {
  std::fprintf(stderr, "confined: %s\n", sentence.c_str());
  std::exit(3);
}

std::vector<std::string> WordsOf(const std::string& text) {
  std::istringstream stream(text);
  std::vector<std::string> words;
  for (std::string word; stream >> word;) words.push_back(word);
  return words;
}

UnitFile::UnitFile(const std::vector<std::string>& paths) {
  for (const std::string& path : paths) ReadFile(path);
}

void UnitFile::ReadFile(const std::string& path) {
  std::ifstream file(path);
  if (!file) FailToConfine("Cannot read " + path + ".");
  std::string section;
  for (std::string line; std::getline(file, line);) {
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') section = line;
    const std::size_t equals = line.find('=');
    if (section != "[Service]" || equals == std::string::npos) continue;
    const std::string setting = line.substr(0, equals);
    const std::string value = line.substr(equals + 1);
    if (!kApplied.contains(setting) && !kLeftOut.contains(setting)) FailToConfine("Unknown setting: " + line);
    if (value.ends_with('\\')) FailToConfine("A continued line cannot be read: " + line);
    std::vector<std::string>& values = values_[setting];
    if (value.empty()) {
      values.clear();
    } else {
      values.push_back(value);
    }
  }
}

std::vector<std::string> UnitFile::Values(const std::string& setting) const {
  const auto found = values_.find(setting);
  return found == values_.end() ? std::vector<std::string>() : found->second;
}

std::string UnitFile::Last(const std::string& setting) const {
  const std::vector<std::string> values = Values(setting);
  return values.empty() ? "" : values.back();
}

// systemd.exec(5): the first value decides whether the list allows or denies; later ones add and, with "~", remove.
std::set<std::string> AllowedCalls(const UnitFile& unit) {
  const Groups groups = SystemdGroups();
  std::set<std::string> allowed;
  AddCalls(groups, "@default", allowed);
  const std::vector<std::string> values = unit.Values("SystemCallFilter");
  if (values.empty() || values.front().starts_with('~')) FailToConfine("The filter does not list what is allowed.");
  for (const std::string& value : values) {
    const bool is_removal = value.starts_with('~');
    std::set<std::string> calls;
    for (const std::string& name : WordsOf(value.substr(is_removal ? 1 : 0))) {
      if (!name.starts_with('@') && seccomp_syscall_resolve_name(name.c_str()) == __NR_SCMP_ERROR)
        FailToConfine("There is no system call " + name + ".");
      AddCalls(groups, name, calls);
    }
    if (!is_removal) {
      allowed.merge(calls);
      continue;
    }
    for (const std::string& call : calls) allowed.erase(call);
  }
  return allowed;
}

}  // namespace vexa::test
