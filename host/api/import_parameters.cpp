#include "host/api/import_parameters.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/records/named_record.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

using guests::ImportRequest;

constexpr std::size_t kMaxQuotedBytes = 128;
constexpr std::size_t kMaxDiskName = 128;
constexpr std::size_t kMaxNetworkName = 1024;
constexpr std::size_t kMaxPath = 4096;

Error Invalid(std::string sentence) { return Error(ErrorCode::kInvalid, std::move(sentence)); }

std::string Quotable(const std::string& text) { return SanitizeForLog(text, kMaxQuotedBytes); }

bool IsInteger(const Json::Value& value) {
  return (value.type() == Json::intValue || value.type() == Json::uintValue) && value.isUInt64();
}

Status CheckMembers(const Json::Value& guest, const std::string& label) {
  constexpr std::string_view kKnown[] = {"xml",           "guest_id",       "repository_id", "host_id", "autostart",
                                         "has_variables", "disk_sizes_mib", "image_sizes",   "networks"};
  if (!guest.isObject()) return Invalid(fmt::format("{} is not an object", label));
  for (const std::string& name : json::MemberNames(guest)) {
    if (std::ranges::find(kKnown, name) == std::end(kKnown)) {
      return Invalid(fmt::format("{} has the unknown member '{}': remove it", label, Quotable(name)));
    }
  }
  return {};
}

Status ReadXml(const Json::Value& guest, const std::string& label, ImportRequest& request) {
  const Json::Value& xml = json::Member(guest, "xml");
  if (!xml.isString()) return Invalid(fmt::format("{} has no 'xml'. Set it to the guest's <domain> XML", label));
  request.xml = json::String(xml);
  if (request.xml.empty())
    return Invalid(fmt::format("{} has an empty 'xml'. Set it to the guest's <domain> XML", label));
  return {};
}

// Leaves `id` unchanged when there is no such member.
Status ReadUuid(const Json::Value& guest, const char* member, const std::string& label, std::string& id) {
  const Json::Value* const value = json::FindMember(guest, member);
  if (!value) return {};
  std::string uuid = value->isString() ? NormalizeUuid(json::String(*value)) : std::string();
  if (uuid.empty()) return Invalid(fmt::format("{} has a '{}' that is not a UUID", label, member));
  id = std::move(uuid);
  return {};
}

Status ReadFlag(const Json::Value& guest, const char* member, const std::string& label, bool& flag) {
  const Json::Value* const value = json::FindMember(guest, member);
  if (!value) return {};
  if (!value->isBool())
    return Invalid(fmt::format("{} has a value of '{}' that is neither true nor false", label, member));
  flag = json::Bool(*value);
  return {};
}

// Calls `use`, a Status(const std::string& name, const Json::Value& value), with each entry of an optional object.
template <class Use>
Status ForEachEntry(const Json::Value& guest, const char* member, const std::string& label, std::size_t max_name,
                    const Use& use) {
  const Json::Value* const entries = json::FindMember(guest, member);
  if (!entries) return {};
  if (!entries->isObject()) return Invalid(fmt::format("{} has a value of '{}' that is not an object", label, member));
  if (entries->size() > kMaxImportEntries) {
    return Invalid(fmt::format("{} has more than {} entries in '{}': remove some", label, kMaxImportEntries, member));
  }
  for (const std::string& name : json::MemberNames(*entries)) {
    if (name.empty() || name.size() > max_name) {
      return Invalid(
          fmt::format("{} has a name in '{}' that is empty or longer than {} bytes", label, member, max_name));
    }
    if (Status status = use(name, json::Member(*entries, name)); !status) return status;
  }
  return {};
}

Status ReadDiskSizes(const Json::Value& guest, const std::string& label, ImportRequest& request) {
  return ForEachEntry(
      guest, "disk_sizes_mib", label, kMaxDiskName, [&](const std::string& name, const Json::Value& size) -> Status {
        const std::uint64_t mib = IsInteger(size) ? json::UInt64(size) : 0;
        if (mib < 1 || mib > domain_xml::kMaxDiskMib) {
          return Invalid(fmt::format("{} has a size for the disk '{}' that is not a whole number of 1 to {} MiB", label,
                                     Quotable(name), domain_xml::kMaxDiskMib));
        }
        request.disk_sizes_mib[name] = mib;
        return {};
      });
}

Status ReadImageSizes(const Json::Value& guest, const std::string& label, ImportRequest& request) {
  return ForEachEntry(
      guest, "image_sizes", label, kMaxPath, [&](const std::string& path, const Json::Value& size) -> Status {
        if (!size.isNull() && !IsInteger(size)) {
          return Invalid(
              fmt::format("{} has a size for the image '{}' that is neither a whole number of bytes nor null", label,
                          Quotable(path)));
        }
        request.image_sizes[path] = size.isNull() ? std::nullopt : std::optional<std::uint64_t>(json::UInt64(size));
        return {};
      });
}

Status ReadNetworks(const Json::Value& guest, const std::string& label, ImportRequest& request) {
  return ForEachEntry(
      guest, "networks", label, kMaxNetworkName, [&](const std::string& name, const Json::Value& id) -> Status {
        std::string uuid = id.isString() ? NormalizeUuid(json::String(id)) : std::string();
        if (uuid.empty()) {
          return Invalid(fmt::format("{} has an id for the network '{}' that is not a UUID", label, Quotable(name)));
        }
        request.networks[name] = std::move(uuid);
        return {};
      });
}

Status ReadGuest(const Json::Value& guest, const std::string& label, ImportRequest& request) {
  if (Status members = CheckMembers(guest, label); !members) return members;
  if (Status xml = ReadXml(guest, label, request); !xml) return xml;
  for (const auto& [member, id] :
       {std::pair{"guest_id", &request.expected_id}, std::pair{"repository_id", &request.repository_id},
        std::pair{"host_id", &request.host_id}}) {
    if (Status status = ReadUuid(guest, member, label, *id); !status) return status;
  }
  if (Status flag = ReadFlag(guest, "autostart", label, request.autostart); !flag) return flag;
  if (Status flag = ReadFlag(guest, "has_variables", label, request.has_variables); !flag) return flag;
  for (const auto read : {ReadDiskSizes, ReadImageSizes, ReadNetworks}) {
    if (Status status = read(guest, label, request); !status) return status;
  }
  return {};
}

}  // namespace

Result<std::vector<ImportRequest>> ReadImportRequests(const Json::Value& guests) {
  if (!guests.isArray() || guests.empty() || guests.size() > kMaxImportedGuests) {
    return Invalid(fmt::format("'guests' must be an array of 1 to {} guests: send more of them in several calls",
                               kMaxImportedGuests));
  }
  std::vector<ImportRequest> requests(guests.size());
  for (Json::ArrayIndex i = 0; i < guests.size(); ++i) {
    const std::string label = fmt::format("Guest {} of the call", i + 1);
    if (Status status = ReadGuest(json::Element(guests, i), label, requests[i]); !status) return status.error();
  }
  return requests;
}

Result<std::map<std::string, std::string>> ReadPlannedGuests(const Json::Value& planned) {
  const auto refused = [] {
    return Invalid(fmt::format(
        "'planned' must be an object that maps at most {} guest ids to names, and is allowed only in a dry run",
        kMaxPlannedGuests));
  };
  if (!planned.isObject() || planned.size() > kMaxPlannedGuests) return refused();
  std::map<std::string, std::string> names;
  for (const std::string& id : json::MemberNames(planned)) {
    const Json::Value& name = json::Member(planned, id);
    const std::string uuid = NormalizeUuid(id);
    if (uuid.empty() || !name.isString() || !records::IsRecordName(json::String(name))) return refused();
    names[uuid] = json::String(name);
  }
  return names;
}

}  // namespace vexa::api
