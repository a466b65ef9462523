// The arguments of `vexa import`.
#include <fmt/format.h>
#include <algorithm>
#include <charconv>

#include "cli/import_command.h"

namespace vexa::cli {
namespace {

Error Invalid(std::string message) { return Error(ErrorCode::kInvalid, std::move(message)); }

// NAME=VALUE, neither of them empty; split at the last '=', because a name in a definition may contain one. A network
// whose own name has one is named by its id.
std::optional<std::pair<std::string, std::string>> SplitAssignment(const std::string& text) {
  const std::size_t at = text.rfind('=');
  if (at == std::string::npos || at == 0 || at + 1 == text.size()) return std::nullopt;
  return std::pair(text.substr(0, at), text.substr(at + 1));
}

Status ReadDiskSize(const std::string& value, ImportArguments& arguments) {
  const auto assignment = SplitAssignment(value);
  std::uint64_t gib = 0;
  if (assignment) {
    const std::string& digits = assignment->second;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), gib);
    if (error != std::errc() || end != digits.data() + digits.size()) gib = 0;
  }
  if (gib < 1 || gib > kMaxDiskGib) {
    return Invalid(fmt::format("'{}' is not a value for --disk-size. Use NAME=GiB, such as 'vda=20', with 1 to {} GiB",
                               value, kMaxDiskGib));
  }
  arguments.disk_sizes_mib[assignment->first] = gib * 1024;
  return {};
}

Status ReadNetwork(const std::string& value, ImportArguments& arguments) {
  const auto assignment = SplitAssignment(value);
  if (!assignment) {
    return Invalid(fmt::format(
        "'{}' is not a value for --network. Use NAME=NETWORK, a name in the definition and a network's id or name",
        value));
  }
  arguments.networks[assignment->first] = assignment->second;
  return {};
}

Status CheckCombination(const ImportArguments& arguments) {
  const int sources =
      (arguments.files.empty() ? 0 : 1) + (arguments.uri.empty() ? 0 : 1) + (arguments.manifest.empty() ? 0 : 1);
  if (sources != 1) return Invalid("Name one source of guests to import: files, --all URI or --manifest FILE");
  if (arguments.copies_disks && arguments.on_existing == OnExisting::kReplace) {
    return Invalid("--copy-disks is for new guests only. Leave out --replace");
  }
  const bool options = !arguments.repository.empty() || !arguments.host.empty() || !arguments.disk_sizes_mib.empty() ||
                       !arguments.networks.empty();
  if (options && !arguments.manifest.empty()) {
    return Invalid(
        "--manifest takes repositories, hosts, networks and disk sizes from the file. Leave out the other options");
  }
  return {};
}

}  // namespace

Result<ImportArguments> ResolveImportArguments(const RawImportArguments& raw) {
  if (std::ranges::find(raw.files, "") != raw.files.end()) {
    return Invalid("A file name is empty. Use the path of a domain XML file");
  }
  ImportArguments arguments;
  arguments.files = raw.files;
  arguments.uri = raw.uri;
  arguments.manifest = raw.manifest;
  if (raw.replace) arguments.on_existing = OnExisting::kReplace;
  if (raw.dry_run) arguments.mode = ImportMode::kDryRun;
  arguments.copies_disks = raw.copy_disks;
  for (const std::string& size : raw.disk_sizes) {
    if (Status read = ReadDiskSize(size, arguments); !read) return read.error();
  }
  for (const std::string& network : raw.networks) {
    if (Status read = ReadNetwork(network, arguments); !read) return read.error();
  }
  arguments.repository = raw.repository;
  arguments.host = raw.host;
  if (Status valid = CheckCombination(arguments); !valid) return valid.error();
  return arguments;
}

}  // namespace vexa::cli
