#include "host/api/api_table.h"

#include <algorithm>
#include <stdexcept>
#include <tuple>

namespace vexa::webapi {
namespace {

auto KeyOf(const ApiRow& row) { return std::tuple(row.api, row.method, row.version); }

}  // namespace

ApiTable::ApiTable(std::vector<ApiRow> rows) : rows_(std::move(rows)) {
  std::ranges::sort(rows_, {}, KeyOf);
  const auto twice = std::ranges::adjacent_find(rows_, {}, KeyOf);
  if (twice != rows_.end()) {
    throw std::logic_error("two rows for " + std::string(twice->api) + " " + std::string(twice->method));
  }
  const auto is_too_open = [](const ApiRow& row) {
    return row.body_bytes > kMostBodyBytes ||
           (row.body_bytes > kBodyBytes && row.access.value != Access::kAdministrator);
  };
  const auto too_open = std::ranges::find_if(rows_, is_too_open);
  if (too_open != rows_.end()) {
    throw std::logic_error("too long bodies for " + std::string(too_open->api) + " " + std::string(too_open->method));
  }
}

const ApiRow* ApiTable::Find(std::string_view api, std::string_view method, int version) const {
  const std::tuple key(api, method, version);
  const auto found = std::ranges::lower_bound(rows_, key, {}, KeyOf);
  return found != rows_.end() && KeyOf(*found) == key ? &*found : nullptr;
}

Handler Plain(void (*handler)(VEXA::APIRequest*, VEXA::APIResponse*)) {
  return [handler](const Call& call) { handler(call.request, call.response); };
}

std::string_view AccessName(Access access) {
  switch (access) {
    case Access::kAnyone:
      return "anyone";
    case Access::kUser:
      return "user";
    case Access::kAdministrator:
      return "admin";
    case Access::kHost:
      return "host";
  }
  return "";
}

std::string_view LaneName(LaneKind lane) { return lane == LaneKind::kQuick ? "quick" : "long"; }

}  // namespace vexa::webapi
