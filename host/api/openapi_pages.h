// The parts of the API description that are not methods of the table. For host/api/openapi*.cpp only.
#pragma once

#include <json/value.h>

#include <set>

#include "host/base/error_table.h"

namespace vexa::api {

// GET /console/<guest id>, as users call it.
Json::Value ConsoleOperation();
// PUT /upload/<upload id>.
Json::Value UploadOperation();
// A page that anybody may get.
Json::Value PageOperation(const char* id, const char* summary, const char* content_type);

// Adds the failures with these codes to the responses of an operation, by HTTP status.
void AddFailures(Json::Value& responses, const std::set<int>& codes, Audience audience);

// The reply of a success whose "data" has this schema.
Json::Value SuccessSchema(const Json::Value& data);

}  // namespace vexa::api
