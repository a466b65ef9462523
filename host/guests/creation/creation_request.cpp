#include "host/guests/creation/creation_request.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <utility>

#include "host/guests/creation/os_defaults.h"
#include "host/records/keys.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_state.h"

namespace vexa::guests {
namespace {

constexpr std::size_t kMaxIdBytes = 128;

Refusal Bad(const std::string& parameter, const std::string& wanted) {
  return {kBadEdit, fmt::format("The parameter '{}' is not {}", parameter, wanted)};
}

// The string under `name`; `fallback` when it is missing. Not set: it is not a string, or too long.
std::optional<std::string> StringAt(const Json::Value& parameters, const char* name, const std::string& fallback) {
  const Json::Value* const value = json::FindMember(parameters, name);
  if (!value) return fallback;
  if (!value->isString() || json::String(*value).size() > kMaxIdBytes) return std::nullopt;
  return json::String(*value);
}

std::optional<cluster::GrantPrincipal> ReadGrant(const Json::Value& value) {
  const std::string kind = json::StringMember(value, "kind");
  const Json::Value& id = json::Member(value, "id");
  const Json::Value& seen = json::Member(value, "seen");
  const bool is_valid = (kind == "user" || kind == "group") && id.isUInt64() &&
                        json::UInt64(id) <= std::numeric_limits<std::uint32_t>::max() && seen.isUInt64();
  if (!is_valid) return std::nullopt;
  return cluster::GrantPrincipal{kind == "user" ? records::AccountKind::kUser : records::AccountKind::kGroup,
                                 static_cast<std::uint32_t>(json::UInt64(id)), json::StringMember(value, "name"),
                                 json::UInt64(seen)};
}

std::optional<Refusal> ReadGrants(const Json::Value& parameters, std::vector<cluster::GrantPrincipal>& grants) {
  const Json::Value* const list = json::FindMember(parameters, "grants");
  if (!list) return std::nullopt;
  if (!list->isArray() || list->size() > kMaxNewGrants) {
    return Bad("grants", fmt::format("a list of at most {} users and groups", kMaxNewGrants));
  }
  for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
    std::optional<cluster::GrantPrincipal> grant = ReadGrant(json::Element(*list, i));
    if (!grant) return Bad(fmt::format("grants[{}]", i), "a user or group");
    const bool is_duplicate = std::ranges::any_of(grants, [&](const cluster::GrantPrincipal& other) {
      return other.kind == grant->kind && other.id == grant->id;
    });
    if (!is_duplicate) grants.push_back(std::move(*grant));
  }
  return std::nullopt;
}

std::optional<Refusal> ReadNumber(const Json::Value& parameters, std::optional<NumberedRequest>& number) {
  const Json::Value* const id = json::FindMember(parameters, "request_id");
  if (!id) return std::nullopt;
  if (!id->isString() || !IsRequestId(json::String(*id))) {
    return Bad("request_id", "1 to 64 letters, digits, '.', '_' and '-'");
  }
  number = NumberedRequest{json::StringMember(parameters, "owner"), json::String(*id),
                           json::StringMember(parameters, "digest")};
  if (number->owner.empty() || number->owner.size() > kMaxIdBytes) return Bad("owner", "an account's id");
  if (number->digest.empty() || number->digest.size() > kMaxIdBytes) return Bad("digest", "a digest");
  return std::nullopt;
}

// The record of the guest while its files are made. It has no name, so that the plan checks the name.
Json::Value RecordOf(const CreationRequest& request) {
  Json::Value record(Json::objectValue);
  record[keys::repository_id] = request.repository_id;
  record[keys::host_id] = request.host_id;
  record[keys::state] = VexaCCC::State::Guest::creating;
  record[keys::is_general_vm] = true;
  record[keys::vdisks] = Json::Value(Json::arrayValue);
  record[keys::vnics] = Json::Value(Json::arrayValue);
  if (request.number) {
    record[kCreationRequest]["owner"] = request.number->owner;
    record[kCreationRequest]["id"] = request.number->id;
  }
  return record;
}

}  // namespace

std::variant<CreationRequest, Refusal> ParseCreation(const Json::Value& parameters) {
  if (!parameters.isObject()) return Bad("", "an object");
  CreationRequest request;
  Json::Value edit = parameters;
  const std::optional<std::string> os = StringAt(parameters, "os", std::string(kDefaultOs));
  if (!os || !AddOsDefaults(*os, edit)) return Bad("os", fmt::format("one of {}", fmt::join(OsNames(), ", ")));
  if (!json::FindMember(parameters, keys::name)) return Refusal{kBadEdit, "The parameter 'name' is missing"};
  const std::optional<std::string> repository_id = StringAt(parameters, keys::repository_id, "");
  if (!repository_id || repository_id->empty()) return Bad(keys::repository_id, "the id of a repository");
  const std::optional<std::string> host_id = StringAt(parameters, keys::host_id, "");
  if (!host_id) return Bad(keys::host_id, "the id of a host, or empty");
  if (std::optional<Refusal> refused = ReadGrants(parameters, request.grants)) return std::move(*refused);
  if (std::optional<Refusal> refused = ReadNumber(parameters, request.number)) return std::move(*refused);
  auto parsed = ParseEdit(edit);
  if (auto* refusal = std::get_if<Refusal>(&parsed)) return std::move(*refusal);
  request.edit = std::move(std::get<EditRequest>(parsed));
  request.name = json::StringMember(request.edit.members, keys::name);
  request.repository_id = *repository_id;
  request.host_id = *host_id;
  request.edit.new_guest = RecordOf(request);
  return request;
}

}  // namespace vexa::guests
