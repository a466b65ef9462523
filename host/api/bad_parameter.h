// What is wrong with the parameters of a call, as far as the method's row says what they have to be.
#pragma once

#include <json/value.h>

#include <string>

#include "host/api/api_table.h"

namespace vexa::api {

// A sentence about the first required parameter that is missing, or the first one of a wrong type, range or form: its
// name, what it has to be, and its value. "": none of these. Texts are quoted only where few are allowed, or ids:
// others can be passwords.
std::string DescribeBadParameter(const ApiRow& row, const Json::Value& parameters);

// A sentence about the first member of the request that the method does not know, at any depth, with the known name
// that is most similar to it. "": it knows all of them.
std::string DescribeUnknownParameter(const ApiRow& row, const Json::Value& parameters);

}  // namespace vexa::api
