// Reads the parameters of a call from the body of its request.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>

#include "host/api/api_table.h"
#include "host/api/body_quota.h"

namespace vexa::api {

// The object in `body`; an empty one without a body. Nothing after a refusal, which is in `response`: the body has more
// values than the row allows (checked before it is parsed), is not a JSON object, or the caller's quota has no room for
// what becomes of it.
std::optional<Json::Value> ReadParameters(const std::string& body, const ApiRow& row, BodyQuota::Share& share,
                                          VEXA::APIResponse& response);

}  // namespace vexa::api
