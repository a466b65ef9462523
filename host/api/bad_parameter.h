// What is wrong with the parameters of a call, as far as the method's row says what they have to be.
#pragma once

#include <json/value.h>

#include <string>

#include "host/api/api_table.h"

namespace vexa::api {

// A sentence about the first required parameter that is missing, or the first one of a wrong type, or a "guest_id" or
// "host_id" that is not a UUID. "": none of these. Only ids are quoted: other texts can be passwords.
std::string DescribeBadParameter(const ApiRow& row, const Json::Value& parameters);

}  // namespace vexa::api
