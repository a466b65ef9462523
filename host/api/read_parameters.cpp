#include "host/api/read_parameters.h"

#include <fmt/format.h>

#include <utility>

#include "host/base/json_parse.h"
#include "host/base/json_values.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

// What a parsed value takes in memory, without its text: a node in its array or object, and the allocator's share.
constexpr std::size_t kBytesPerValue = 128;

}  // namespace

std::optional<Json::Value> ReadParameters(const std::string& body, const ApiRow& row, BodyQuota::Share& share,
                                          VEXA::APIResponse& response) {
  const auto refuse = [&response](int code, const Json::Value& details) {
    response.SetError(code, details);
    return std::nullopt;
  };
  if (body.empty()) return Json::Value(Json::objectValue);
  const std::size_t values = CountJsonValues(body, row.body_values);
  if (values > row.body_values) {
    return refuse(user_error::kBodyTooLarge, fmt::format("The body has more than {} values", row.body_values));
  }
  // Fewer values take little, however many calls there are.
  if (values > kDefaultBodyValues && !share.Resize(body.size() + values * kBytesPerValue)) {
    return refuse(user_error::kHostBusy, Json::Value());
  }
  Result<Json::Value> parsed = ParseJson(body);
  if (!parsed) return refuse(user_error::kMalformed, parsed.error().ToString());
  if (!parsed->isObject()) return refuse(user_error::kMalformed, "The body is not a JSON object");
  return std::move(*parsed);
}

}  // namespace vexa::api
