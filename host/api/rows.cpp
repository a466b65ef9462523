#include "host/api/rows.h"

#include <fmt/format.h>

#include <utility>

namespace vexa::api {
namespace {

ApiRow Row(std::string_view api, std::string_view method, Access access, LaneKind lane, Handler handler,
           std::string_view summary, std::vector<Parameter> parameters, std::vector<int> errors) {
  return {.api = api,
          .method = method,
          .version = 1,
          .access = access,
          .lane = lane,
          .handler = std::move(handler),
          .summary = summary,
          .parameters = std::move(parameters),
          .errors = std::move(errors)};
}

}  // namespace

void FailUnreadable(const Call& call, const Error& error) {
  Fail(call, user_error::kNotFoundOrUnreadable);
  SetReason(call, fmt::format("The cluster database cannot be read: {}.", error.ToString()), Readers::kAdministrators);
}

std::optional<bool> ReadFlag(const Call& call, const char* name) {
  const auto flag = call.request->GetAndCheckBool(name, kOptional);
  if (!flag.IsInvalid()) return flag.IsSet() && flag.Get();
  Fail(call, user_error::kBadParameter, fmt::format("The parameter '{}' is neither true nor false.", name));
  return std::nullopt;
}

ApiRow HostRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler, std::string_view summary,
               std::vector<Parameter> parameters, std::vector<int> errors) {
  return Row(api, method, Access::kHost, lane, std::move(handler), summary, std::move(parameters), std::move(errors));
}

ApiRow UserRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler, std::string_view summary,
               std::vector<Parameter> parameters, std::vector<int> errors) {
  return Row(api, method, Access::kUser, lane, std::move(handler), summary, std::move(parameters), std::move(errors));
}

ApiRow AdministratorRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler,
                        std::string_view summary, std::vector<Parameter> parameters, std::vector<int> errors) {
  return Row(api, method, Access::kAdministrator, lane, std::move(handler), summary, std::move(parameters),
             std::move(errors));
}

}  // namespace vexa::api
