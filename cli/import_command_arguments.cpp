// The arguments of `vexa import`.
#include <charconv>

#include "cli/import_command.h"

namespace vexa::cli {
namespace {

constexpr std::uint64_t kMaxDiskGib = hypervisor::kMaxDiskMib / 1024;

Error Refused(std::string message) { return Error(ErrorCode::kInvalid, std::move(message)); }

// NAME=VALUE, both not empty; split at the last '=' because a network's name may hold one and no value does.
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
  if (!assignment || hypervisor::NormalizeUuid(assignment->second).empty()) {
    return Refused("--network says '" + value + "': give NAME=UUID, the name of a network or bridge and its id");
  }
  arguments.networks[assignment->first] = assignment->second;
  return {};
}

Status TakeUuid(const std::string& option, const std::string& value, std::optional<std::string>& member) {
  if (hypervisor::NormalizeUuid(value).empty()) {
    return Refused(option + " says '" + value + "': give a UUID of the form 8-4-4-4-12");
  }
  member = value;
  return {};
}

Status TakeOption(const std::string& option, const std::string& value, ImportArguments& arguments) {
  if (option == "--disk-size") return TakeDiskSize(value, arguments);
  if (option == "--network") return TakeNetwork(value, arguments);
  if (option == "--repository-id") return TakeUuid(option, value, arguments.repository_id);
  if (option == "--host-id") return TakeUuid(option, value, arguments.host_id);
  (option == "--all" ? arguments.uri : arguments.manifest) = value;
  return {};
}

bool TakesValue(std::string_view option) {
  return option == "--all" || option == "--manifest" || option == "--repository-id" || option == "--host-id" ||
         option == "--disk-size" || option == "--network";
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

const std::string_view kImportUsage =
    "Usage: vexa import [OPTIONS] FILE.xml…\n"
    "       vexa import [OPTIONS] --all URI\n"
    "       vexa import [--replace] [--dry-run] --manifest FILE.json\n"
    "\n"
    "Imports guests from libvirt's domain XML, as 'virsh dumpxml' prints it.\n"
    "\n"
    "  --all URI             every domain that the libvirt connection URI knows\n"
    "  --manifest FILE       the guests that a JSON file lists\n"
    "  --replace             replace guests that exist already\n"
    "  --dry-run             print the records as JSON and write nothing\n"
    "  --disk-size NAME=GiB  the size of a disk whose image cannot be read; may be repeated\n"
    "  --network NAME=UUID   the id of a network or bridge; may be repeated\n"
    "  --repository-id UUID  the repository that the guests belong to\n"
    "  --host-id UUID        the host that the guests run on\n";

Result<ImportArguments> ParseImportArguments(const std::vector<std::string>& words) {
  ImportArguments arguments;
  bool only_files = false;
  for (std::size_t i = 0; i < words.size(); ++i) {
    std::string word = words[i];
    if (only_files || !word.starts_with("-")) {
      if (word.empty()) return Refused("A file name is empty: give the path of a domain XML file");
      arguments.files.push_back(std::move(word));
      continue;
    }
    if (word == "--") {
      only_files = true;
    } else if (word == "--replace") {
      arguments.on_existing = OnExisting::kReplace;
    } else if (word == "--dry-run") {
      arguments.mode = ImportMode::kDryRun;
    } else {
      std::string value;
      const std::size_t equals = word.find('=');
      const std::string option = word.substr(0, equals);
      if (!TakesValue(option)) return Refused("'" + option + "' is no option of import: see 'vexa import --help'");
      if (equals != std::string::npos) {
        value = word.substr(equals + 1);
      } else if (i + 1 < words.size()) {
        value = words[++i];
      }
      if (value.empty()) return Refused(option + " needs a value: see 'vexa import --help'");
      if (Status taken = TakeOption(option, value, arguments); !taken) return taken.error();
    }
  }
  if (Status together = CheckTogether(arguments); !together) return together.error();
  return arguments;
}

}  // namespace vexa::cli
