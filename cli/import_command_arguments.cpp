// The arguments of `vexa import`.
#include <algorithm>
#include <charconv>

#include "cli/import_command.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

Error Refused(std::string message) { return Error(ErrorCode::kInvalid, std::move(message)); }

// NAME=VALUE, neither of them empty; split at the last '=', because a network's name may contain one and a value never
// does.
std::optional<std::pair<std::string, std::string>> SplitAssignment(const std::string& text) {
  const std::size_t at = text.rfind('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) return std::nullopt;
  return std::pair(text.substr(0, at), text.substr(at + 1));
}

Status TakeDiskSize(const std::string& value, ImportArguments& arguments) {
  const auto assignment = SplitAssignment(value);
  std::uint64_t gib = 0;
  if (assignment) {
    const std::string& digits = assignment->second;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), gib);
    if (error != std::errc() || end != digits.data() + digits.size()) gib = 0;
  }
  if (gib < 1 || gib > kMaxDiskGib) {
    return Refused("--disk-size says '" + value + "': give NAME=GiB, such as 'vda=20', with 1 to " +
                   std::to_string(kMaxDiskGib) + " GiB");
  }
  arguments.disk_sizes_mib[assignment->first] = gib * 1024;
  return {};
}

Status TakeNetwork(const std::string& value, ImportArguments& arguments) {
  const auto assignment = SplitAssignment(value);
  if (!assignment || NormalizeUuid(assignment->second).empty()) {
    return Refused("--network says '" + value + "': give NAME=UUID, the name of a network or bridge and its id");
  }
  arguments.networks[assignment->first] = assignment->second;
  return {};
}

// An empty text means that the option was not given.
Status TakeUuid(const std::string& option, const std::string& value, std::optional<std::string>& member) {
  if (value.empty()) return {};
  if (NormalizeUuid(value).empty()) {
    return Refused(option + " says '" + value + "': give a UUID of the form 8-4-4-4-12");
  }
  member = value;
  return {};
}

Status CheckTogether(const ImportArguments& arguments) {
  const int sources =
      (arguments.files.empty() ? 0 : 1) + (arguments.uri.empty() ? 0 : 1) + (arguments.manifest.empty() ? 0 : 1);
  if (sources != 1) return Refused("Say what to import: files, or --all URI, or --manifest FILE");
  const bool options =
      arguments.repository_id || arguments.host_id || !arguments.disk_sizes_mib.empty() || !arguments.networks.empty();
  if (options && !arguments.manifest.empty()) {
    return Refused("--manifest takes ids, networks and disk sizes from the file: leave the other options out");
  }
  return {};
}

}  // namespace

Result<ImportArguments> ResolveImportArguments(const ImportWords& words) {
  if (std::ranges::find(words.files, "") != words.files.end()) {
    return Refused("A file name is empty: give the path of a domain XML file");
  }
  ImportArguments arguments;
  arguments.files = words.files;
  arguments.uri = words.uri;
  arguments.manifest = words.manifest;
  if (words.replace) arguments.on_existing = OnExisting::kReplace;
  if (words.dry_run) arguments.mode = ImportMode::kDryRun;
  for (const std::string& size : words.disk_sizes) {
    if (Status taken = TakeDiskSize(size, arguments); !taken) return taken.error();
  }
  for (const std::string& network : words.networks) {
    if (Status taken = TakeNetwork(network, arguments); !taken) return taken.error();
  }
  if (Status taken = TakeUuid("--repository-id", words.repository_id, arguments.repository_id); !taken) {
    return taken.error();
  }
  if (Status taken = TakeUuid("--host-id", words.host_id, arguments.host_id); !taken) return taken.error();
  if (Status together = CheckTogether(arguments); !together) return together.error();
  return arguments;
}

}  // namespace vexa::cli
