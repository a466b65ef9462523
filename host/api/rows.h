// Shared by the rows of users and of other hosts.
#pragma once

#include <string>
#include <string_view>

#include "host/api/api_table.h"
#include "host/api/reason.h"

namespace vexa::services {

inline constexpr int kRequired = 0;
inline constexpr int kOptional = 1;
inline constexpr int kErrorUnreadable = 403;    // a record, interface or volume that does not exist or cannot be read
inline constexpr int kErrorNotPermitted = 409;  // the user may not act on the guest, or not call the method

inline void Fail(const webapi::Call& call, int code) { call.response->SetError(code, Json::Value()); }

// The same with a sentence that says why.
inline void Fail(const webapi::Call& call, int code, const std::string& reason) {
  Fail(call, code);
  webapi::SetReason(call, reason);
}

inline webapi::Parameter Text(std::string_view name, std::string_view description) {
  return {name, webapi::ParameterType::kString, webapi::Necessity::kRequired, description};
}

inline webapi::Parameter OptionalText(std::string_view name, std::string_view description) {
  return {name, webapi::ParameterType::kString, webapi::Necessity::kOptional, description};
}

}  // namespace vexa::services
