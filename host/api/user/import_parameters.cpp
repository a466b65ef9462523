#include "host/api/user/import_parameters.h"

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/base/uuid.h"
#include "host/records/named_record.h"
#include "json/readers.h"

namespace vexa::services {
namespace {

namespace json = VexaVirtualization::json;
using guests::ImportRequest;

constexpr std::size_t kShown = 128;
constexpr std::size_t kMaxDiskName = 128;
constexpr std::size_t kMaxNetworkName = 1024;
constexpr std::size_t kMaxPath = 4096;

Error Invalid(const std::string& where, const std::string& what) {
  return Error(ErrorCode::kInvalid, where + " " + what);
}

std::string Shown(const std::string& text) { return "'" + cluster::LogText(text, kShown) + "'"; }

bool IsInteger(const Json::Value& value) {
  return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isUInt64();
}

Status CheckMembers(const Json::Value& guest, const std::string& where) {
  constexpr std::string_view kKnown[] = {"xml",           "guest_id",       "repository_id", "host_id", "autostart",
                                         "has_variables", "disk_sizes_mib", "image_sizes",   "networks"};
  if (!guest.isObject()) return Invalid(where, "is not an object");
  for (const std::string& name : json::MemberNames(guest)) {
    if (std::ranges::find(kKnown, name) == std::end(kKnown)) {
      return Invalid(where, "has the unknown member " + Shown(name) + ": remove it");
    }
  }
  return {};
}

Status TakeXml(const Json::Value& guest, const std::string& where, ImportRequest& request) {
  const Json::Value& xml = json::Member(guest, "xml");
  if (!xml.isString()) return Invalid(where, "has no 'xml': give the text of its <domain>");
  request.xml = json::String(xml);
  if (request.xml.empty()) return Invalid(where, "has an empty 'xml': give the text of its <domain>");
  return {};
}

// Leaves `id` unchanged when there is no such member.
Status TakeUuid(const Json::Value& guest, const char* member, const std::string& where, std::string& id) {
  const Json::Value* const value = json::FindMember(guest, member);
  if (!value) return {};
  std::string uuid = value->isString() ? NormalizeUuid(json::String(*value)) : std::string();
  if (uuid.empty()) return Invalid(where, std::string("has a '") + member + "' that is not a UUID");
  id = std::move(uuid);
  return {};
}

Status TakeFlag(const Json::Value& guest, const char* member, const std::string& where, bool& flag) {
  const Json::Value* const value = json::FindMember(guest, member);
  if (!value) return {};
  if (!value->isBool()) return Invalid(where, std::string("has '") + member + "' that is neither true nor false");
  flag = json::Bool(*value);
  return {};
}

// Calls `take`, a Status(const std::string& name, const Json::Value& value), with each entry of an optional object.
template <class Take>
Status EachEntry(const Json::Value& guest, const char* member, const std::string& where, std::size_t max_name,
                 const Take& take) {
  const Json::Value* const entries = json::FindMember(guest, member);
  if (!entries) return {};
  if (!entries->isObject()) return Invalid(where, std::string("has '") + member + "' that is not an object");
  if (entries->size() > kMaxImportEntries) {
    return Invalid(where, std::string("has more than ") + std::to_string(kMaxImportEntries) + " entries in '" + member +
                              "': remove some");
  }
  for (const std::string& name : json::MemberNames(*entries)) {
    if (name.empty() || name.size() > max_name) {
      return Invalid(where, std::string("has a name in '") + member + "' that is empty or longer than " +
                                std::to_string(max_name) + " bytes");
    }
    if (Status taken = take(name, json::Member(*entries, name)); !taken) return taken;
  }
  return {};
}

Status TakeDiskSizes(const Json::Value& guest, const std::string& where, ImportRequest& request) {
  return EachEntry(
      guest, "disk_sizes_mib", where, kMaxDiskName, [&](const std::string& name, const Json::Value& size) -> Status {
        const std::uint64_t mib = IsInteger(size) ? json::UInt64(size) : 0;
        if (mib < 1 || mib > hypervisor::kMaxDiskMib) {
          return Invalid(where, "has a size of the disk " + Shown(name) + " that is not a whole number of 1 to " +
                                    std::to_string(hypervisor::kMaxDiskMib) + " MiB");
        }
        request.disk_sizes_mib[name] = mib;
        return {};
      });
}

Status TakeImageSizes(const Json::Value& guest, const std::string& where, ImportRequest& request) {
  return EachEntry(
      guest, "image_sizes", where, kMaxPath, [&](const std::string& path, const Json::Value& size) -> Status {
        if (!size.isNull() && !IsInteger(size)) {
          return Invalid(
              where, "has a size of the image " + Shown(path) + " that is neither a whole number of bytes nor null");
        }
        request.image_sizes[path] = size.isNull() ? std::nullopt : std::optional<std::uint64_t>(json::UInt64(size));
        return {};
      });
}

Status TakeNetworks(const Json::Value& guest, const std::string& where, ImportRequest& request) {
  return EachEntry(guest, "networks", where, kMaxNetworkName,
                   [&](const std::string& name, const Json::Value& id) -> Status {
                     std::string uuid = id.isString() ? NormalizeUuid(json::String(id)) : std::string();
                     if (uuid.empty()) {
                       return Invalid(where, "has an id of the network " + Shown(name) + " that is not a UUID");
                     }
                     request.networks[name] = std::move(uuid);
                     return {};
                   });
}

Status TakeGuest(const Json::Value& guest, const std::string& where, ImportRequest& request) {
  if (Status members = CheckMembers(guest, where); !members) return members;
  if (Status xml = TakeXml(guest, where, request); !xml) return xml;
  for (const auto& [member, id] :
       {std::pair{"guest_id", &request.expected_id}, std::pair{"repository_id", &request.repository_id},
        std::pair{"host_id", &request.host_id}}) {
    if (Status taken = TakeUuid(guest, member, where, *id); !taken) return taken;
  }
  if (Status flag = TakeFlag(guest, "autostart", where, request.autostart); !flag) return flag;
  if (Status flag = TakeFlag(guest, "has_variables", where, request.has_variables); !flag) return flag;
  for (const auto take : {TakeDiskSizes, TakeImageSizes, TakeNetworks}) {
    if (Status taken = take(guest, where, request); !taken) return taken;
  }
  return {};
}

}  // namespace

Result<std::vector<ImportRequest>> ReadImportRequests(const Json::Value& guests) {
  if (!guests.isArray() || guests.empty() || guests.size() > kMaxImportedGuests) {
    return Error(ErrorCode::kInvalid, "'guests' must be an array of 1 to " + std::to_string(kMaxImportedGuests) +
                                          " guests: send more of them in several calls");
  }
  std::vector<ImportRequest> requests(guests.size());
  for (Json::ArrayIndex i = 0; i < guests.size(); ++i) {
    const std::string where = "Guest " + std::to_string(i + 1) + " of the call";
    if (Status taken = TakeGuest(json::Element(guests, i), where, requests[i]); !taken) return taken.error();
  }
  return requests;
}

Result<std::map<std::string, std::string>> ReadPlannedGuests(const Json::Value& planned) {
  const auto refused = [] {
    return Error(ErrorCode::kInvalid, "'planned' must be an object of at most " + std::to_string(kMaxPlannedGuests) +
                                          " ids with the names of guests, and only belongs to a dry run");
  };
  if (!planned.isObject() || planned.size() > kMaxPlannedGuests) return refused();
  std::map<std::string, std::string> names;
  for (const std::string& id : json::MemberNames(planned)) {
    const Json::Value& name = json::Member(planned, id);
    const std::string uuid = NormalizeUuid(id);
    if (uuid.empty() || !name.isString() || !cluster::IsRecordName(json::String(name))) return refused();
    names[uuid] = json::String(name);
  }
  return names;
}

}  // namespace vexa::services
