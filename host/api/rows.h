// Shared by the rows of users and of other hosts.
#pragma once

#include <string_view>

#include "host/api/api_table.h"

namespace vexa::services {

inline constexpr int kRequired = 0;
inline constexpr int kOptional = 1;
inline constexpr int kErrorUnreadable = 403;  // a record, interface or volume that does not exist or cannot be read

inline void Fail(const webapi::Call& call, int code) { call.response->SetError(code, Json::Value()); }

inline webapi::Parameter Text(std::string_view name, std::string_view description) {
  return {name, webapi::ParameterType::kString, webapi::Necessity::kRequired, description};
}

}  // namespace vexa::services
