// The manifest: one JSON file that lists guests to import, with their options.
#include <algorithm>
#include <filesystem>

#include "cli/import_command.h"
#include "cli/printable.h"
#include "host/base/files.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxManifestBytes = std::size_t{16} << 20;

Error Refused(const std::string& where, const std::string& what) {
  return Error(ErrorCode::kInvalid, Printable("The manifest's " + where + " " + what));
}

Status CheckMembers(const Json::Value& object, const std::string& where, std::initializer_list<const char*> known) {
  if (!object.isObject()) return Refused(where, "is no object");
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      return Refused(where, "has the unknown member '" + name + "': remove it");
    }
  }
  return {};
}

// Leaves `id` unchanged when there is no such member.
Status TakeUuid(const Json::Value& object, const std::string& member, const std::string& where, std::string& id) {
  if (!object.isMember(member)) return {};
  const Json::Value& value = object[member];
  const std::string uuid = value.isString() ? NormalizeUuid(value.asString()) : "";
  if (uuid.empty()) return Refused(where, "has a '" + member + "' that is no UUID");
  id = uuid;
  return {};
}

Status TakeNetworks(const Json::Value& networks, hypervisor::ImportOptions& options) {
  if (networks.isNull()) return {};
  if (!networks.isObject()) return Refused("'networks'", "is no object of names and UUIDs");
  for (const std::string& name : networks.getMemberNames()) {
    if (Status taken = TakeUuid(networks, name, "'networks'", options.networks[name]); !taken) return taken;
  }
  return {};
}

Status TakeDiskSizes(const Json::Value& sizes, const std::string& where, hypervisor::ImportOptions& options) {
  if (sizes.isNull()) return {};
  if (!sizes.isObject()) return Refused(where, "has 'disk_sizes_gib' that is no object of disk names and numbers");
  for (const std::string& name : sizes.getMemberNames()) {
    const Json::Value& size = sizes[name];
    if (!size.isUInt64() || size.asUInt64() < 1 || size.asUInt64() > kMaxDiskGib) {
      return Refused(where, "has a size of the disk '" + name + "' that is no whole number of 1 to " +
                                std::to_string(kMaxDiskGib) + " GiB");
    }
    options.disk_sizes_mib[name] = size.asUInt64() * 1024;
  }
  return {};
}

Result<ImportSource> TakeGuest(const Json::Value& guest, const std::string& where, const std::filesystem::path& folder,
                               const hypervisor::ImportOptions& defaults) {
  Status members = CheckMembers(guest, where, {"file", "id", "repository_id", "host_id", "disk_sizes_gib"});
  if (!members) return members.error();
  if (!guest["file"].isString() || guest["file"].asString().empty()) {
    return Refused(where, "has no 'file': give the path of a domain XML file");
  }
  ImportSource source;
  source.label = guest["file"].asString();
  source.file = (folder / source.label).string();
  source.options = defaults;
  if (Status id = TakeUuid(guest, "id", where, source.expected_id); !id) return id.error();
  if (Status id = TakeUuid(guest, "repository_id", where, source.options.repository_id); !id) return id.error();
  if (Status id = TakeUuid(guest, "host_id", where, source.options.host_id); !id) return id.error();
  if (Status sizes = TakeDiskSizes(guest["disk_sizes_gib"], where, source.options); !sizes) return sizes.error();
  return source;
}

}  // namespace

Result<std::vector<ImportSource>> ReadManifest(const std::string& path) {
  Result<std::string> text = ReadFile(path, kMaxManifestBytes);
  if (!text) return text.error();
  const Result<Json::Value> manifest = ParseJson(*text);
  if (!manifest) return Error(ErrorCode::kInvalid, "The manifest cannot be read", manifest.error().ToString());

  Status members = CheckMembers(*manifest, "root", {"guests", "repository_id", "host_id", "networks"});
  if (!members) return members.error();
  hypervisor::ImportOptions defaults;
  if (Status id = TakeUuid(*manifest, "repository_id", "root", defaults.repository_id); !id) return id.error();
  if (Status id = TakeUuid(*manifest, "host_id", "root", defaults.host_id); !id) return id.error();
  if (Status networks = TakeNetworks((*manifest)["networks"], defaults); !networks) return networks.error();

  const Json::Value& guests = (*manifest)["guests"];
  if (!guests.isArray()) return Refused("root", "has no 'guests': give an array of objects with a 'file' each");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::vector<ImportSource> sources;
  for (Json::ArrayIndex i = 0; i < guests.size(); ++i) {
    Result<ImportSource> source = TakeGuest(guests[i], "guest " + std::to_string(i + 1), folder, defaults);
    if (!source) return source.error();
    sources.push_back(std::move(*source));
  }
  return sources;
}

}  // namespace vexa::cli
