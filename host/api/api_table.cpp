#include "host/api/api_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>
#include <tuple>

namespace vexa::api {
namespace {

auto KeyOf(const ApiRow& row) { return std::tuple(row.api, row.method, row.version); }

// Hosts and users have a table each, because the same code may mean something else to hosts.
bool HasErrorSentence(int code, Audience audience) {
  return std::ranges::count(audience == Audience::kHosts ? HostErrorTable() : ErrorTable(), code, &ErrorRow::code) > 0;
}

bool AllowsTooMuch(const ApiRow& row) {
  const bool is_long = row.body_bytes > kDefaultBodyBytes;
  const bool has_many_values = row.body_values > kDefaultBodyValues;
  if (row.body_bytes > kMaxBodyBytes || row.body_values > kMaxBodyValues) return true;
  if (row.access.value == Access::kAdministrator) return false;
  return is_long || (has_many_values && row.access.value != Access::kHost);
}

Schema RequestOf(const ApiRow& row) {
  Schema request;
  request.type = ValueType::kObject;
  for (const Parameter& parameter : row.parameters) {
    request.members.push_back({std::string(parameter.name), parameter.necessity, SchemaOf(parameter)});
  }
  return request;
}

}  // namespace

Schema SchemaOf(const Parameter& parameter) {
  Schema schema = parameter.schema;
  schema.type = parameter.type;
  schema.description = parameter.description;
  const bool is_id = parameter.name == "guest_id" || parameter.name == "host_id";
  if (is_id && schema.format.empty()) schema.format = "uuid";
  if (parameter.max_items > 0) schema.maximum = static_cast<std::int64_t>(parameter.max_items);
  return schema;
}

ApiTable::ApiTable(std::vector<ApiRow> rows) : rows_(std::move(rows)) {
  std::ranges::sort(rows_, {}, KeyOf);
  const auto duplicate = std::ranges::adjacent_find(rows_, {}, KeyOf);
  if (duplicate != rows_.end()) {
    throw std::logic_error(fmt::format("The API table has two rows for {} {}", duplicate->api, duplicate->method));
  }
  const auto wrong = std::ranges::find_if(rows_, AllowsTooMuch);
  if (wrong != rows_.end()) {
    throw std::logic_error(fmt::format("The API table allows too large bodies for {} {}", wrong->api, wrong->method));
  }
  for (ApiRow& row : rows_) {
    row.request = RequestOf(row);
    for (const int code : row.errors) {
      if (HasErrorSentence(code, AudienceOf(row.access.value))) continue;
      throw std::logic_error(fmt::format(
          "The error code {} of {} {} has no sentence for its callers in the error table", code, row.api, row.method));
    }
  }
}

const ApiRow* ApiTable::Find(std::string_view api, std::string_view method, int version) const {
  const std::tuple key(api, method, version);
  const auto found = std::ranges::lower_bound(rows_, key, {}, KeyOf);
  return found != rows_.end() && KeyOf(*found) == key ? &*found : nullptr;
}

Handler RequestResponseHandler(void (*handler)(VEXA::APIRequest*, VEXA::APIResponse*)) {
  return [handler](const Call& call) { handler(call.request, call.response); };
}

std::string_view AccessName(Access access) {
  constexpr std::string_view kNames[] = {"anyone", "user", "admin", "host"};  // in the order of the enumerators
  return kNames[static_cast<std::size_t>(access)];
}

std::string_view LaneName(LaneKind lane) { return lane == LaneKind::kQuick ? "quick" : "long"; }

}  // namespace vexa::api
