// The manifest: one JSON file that lists guests to import, with their options.
#include <fmt/format.h>
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

Error Invalid(const std::string& where, const std::string& what) {
  return Error(ErrorCode::kInvalid, Printable(fmt::format("The manifest's {} {}", where, what)));
}

Status CheckMembers(const Json::Value& object, const std::string& where, std::initializer_list<const char*> known) {
  if (!object.isObject()) return Invalid(where, "is not an object");
  for (const std::string& name : object.getMemberNames()) {
    if (std::find(known.begin(), known.end(), name) == known.end()) {
      return Invalid(where, fmt::format("has the unknown member '{}'. Remove it", name));
    }
  }
  return {};
}

// Leaves `id` unchanged when there is no such member.
Status ReadUuid(const Json::Value& object, const std::string& member, const std::string& where, std::string& id) {
  if (!object.isMember(member)) return {};
  const Json::Value& value = object[member];
  const std::string uuid = value.isString() ? NormalizeUuid(value.asString()) : "";
  if (uuid.empty()) return Invalid(where, fmt::format("has a '{}' that is not a UUID", member));
  id = uuid;
  return {};
}

// The object's member `kind` ("host"), an id or a name, or the member with its id ("host_id"). Leaves `text` unchanged
// without both.
Status ReadReference(const Json::Value& object, const std::string& kind, const std::string& where, std::string& text) {
  const std::string id_member = kind + "_id";
  if (!object.isMember(kind)) return ReadUuid(object, id_member, where, text);
  const Json::Value& value = object[kind];
  if (object.isMember(id_member)) return Invalid(where, fmt::format("has both '{}' and '{}'", kind, id_member));
  if (!value.isString() || value.asString().empty()) {
    return Invalid(where, fmt::format("has a '{}' that is neither an id nor a name", kind));
  }
  text = value.asString();
  return {};
}

Status ReadNetworks(const Json::Value& networks, domain_xml::ImportOptions& options) {
  if (networks.isNull()) return {};
  if (!networks.isObject()) return Invalid("'networks'", "is not an object of names and networks");
  for (const std::string& name : networks.getMemberNames()) {
    const Json::Value& network = networks[name];
    if (!network.isString() || network.asString().empty()) {
      return Invalid("'networks'", fmt::format("has a '{}' that is neither an id nor a name", name));
    }
    options.networks[name] = network.asString();
  }
  return {};
}

Status ReadDiskSizes(const Json::Value& sizes, const std::string& where, domain_xml::ImportOptions& options) {
  if (sizes.isNull()) return {};
  if (!sizes.isObject()) {
    return Invalid(where, "has a 'disk_sizes_gib' that is not an object of disk names and numbers");
  }
  for (const std::string& name : sizes.getMemberNames()) {
    const Json::Value& size = sizes[name];
    if (!size.isUInt64() || size.asUInt64() < 1 || size.asUInt64() > kMaxDiskGib) {
      return Invalid(where, fmt::format("has a size for the disk '{}' that is not a whole number from 1 to {} GiB",
                                        name, kMaxDiskGib));
    }
    options.disk_sizes_mib[name] = size.asUInt64() * 1024;
  }
  return {};
}

Result<ImportSource> ReadGuest(const Json::Value& guest, const std::string& where, const std::filesystem::path& folder,
                               const domain_xml::ImportOptions& defaults) {
  Status members =
      CheckMembers(guest, where, {"file", "id", "repository", "repository_id", "host", "host_id", "disk_sizes_gib"});
  if (!members) return members.error();
  if (!guest["file"].isString() || guest["file"].asString().empty()) {
    return Invalid(where, "has no 'file'. Name a domain XML file there");
  }
  ImportSource source;
  source.label = guest["file"].asString();
  source.file = (folder / source.label).string();
  source.options = defaults;
  if (Status id = ReadUuid(guest, "id", where, source.expected_id); !id) return id.error();
  if (Status read = ReadReference(guest, "repository", where, source.options.repository_id); !read) return read.error();
  if (Status read = ReadReference(guest, "host", where, source.options.host_id); !read) return read.error();
  if (Status sizes = ReadDiskSizes(guest["disk_sizes_gib"], where, source.options); !sizes) return sizes.error();
  return source;
}

}  // namespace

Result<std::vector<ImportSource>> ReadManifest(const std::string& path) {
  Result<std::string> text = ReadFile(path, kMaxManifestBytes);
  if (!text) return text.error();
  const Result<Json::Value> manifest = ParseJson(*text);
  if (!manifest) return Error(ErrorCode::kInvalid, "Cannot read the manifest", manifest.error().ToString());

  Status members =
      CheckMembers(*manifest, "root", {"guests", "repository", "repository_id", "host", "host_id", "networks"});
  if (!members) return members.error();
  domain_xml::ImportOptions defaults;
  if (Status read = ReadReference(*manifest, "repository", "root", defaults.repository_id); !read) return read.error();
  if (Status read = ReadReference(*manifest, "host", "root", defaults.host_id); !read) return read.error();
  if (Status networks = ReadNetworks((*manifest)["networks"], defaults); !networks) return networks.error();

  const Json::Value& guests = (*manifest)["guests"];
  if (!guests.isArray())
    return Invalid("root", "has no 'guests'. List the guests there, as objects with a 'file' each");
  const std::filesystem::path folder = std::filesystem::path(path).parent_path();
  std::vector<ImportSource> sources;
  for (Json::ArrayIndex i = 0; i < guests.size(); ++i) {
    Result<ImportSource> source = ReadGuest(guests[i], fmt::format("guest {}", i + 1), folder, defaults);
    if (!source) return source.error();
    sources.push_back(std::move(*source));
  }
  return sources;
}

}  // namespace vexa::cli
