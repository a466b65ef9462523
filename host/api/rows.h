// Shared by the methods for users and those for other hosts: functions that make rows and parameters, read flags, and
// report failures.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/api/api_table.h"
#include "host/api/reason.h"
#include "host/base/result.h"
#include "webapi/error_codes.h"

namespace vexa::api {

inline constexpr int kRequired = 0;
inline constexpr int kOptional = 1;

inline void Fail(const Call& call, int code) { call.response->SetError(code, Json::Value()); }

// Also adds the reason, a sentence.
inline void Fail(const Call& call, int code, const std::string& reason) {
  Fail(call, code);
  SetReason(call, reason);
}

// The code for records that cannot be read, with the cause for administrators.
void FailUnreadable(const Call& call, const Error& error);

inline Parameter Text(std::string_view name, std::string_view description) {
  return {name, ParameterType::kString, Necessity::kRequired, description};
}

inline Parameter Optional(std::string_view name, ParameterType type, std::string_view description) {
  return {name, type, Necessity::kOptional, description};
}

inline Parameter OptionalString(std::string_view name, std::string_view description) {
  return Optional(name, ParameterType::kString, description);
}

inline Parameter OptionalFlag(std::string_view name, std::string_view description) {
  return Optional(name, ParameterType::kBoolean, description);
}

// Reads an optional boolean; false when it is absent. Not set when it is not a boolean; the call has then been
// answered.
std::optional<bool> ReadFlag(const Call& call, const char* name);

// Rows of version 1 for callers with this access; `errors` are the method's own codes, in addition to the common ones.
ApiRow HostRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler, std::string_view summary,
               std::vector<Parameter> parameters = {}, std::vector<int> errors = {});
ApiRow UserRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler, std::string_view summary,
               std::vector<Parameter> parameters, std::vector<int> errors);
ApiRow AdministratorRow(std::string_view api, std::string_view method, LaneKind lane, Handler handler,
                        std::string_view summary, std::vector<Parameter> parameters, std::vector<int> errors);

}  // namespace vexa::api
