// An example of a value with a schema, for the API description.
#pragma once

#include <json/value.h>

#include "host/api/schema.h"

namespace vexa::api {

enum class Optionals { kAll, kRequiredOnly };

// A value that fits the schema: the schema's own examples, otherwise the first allowed values, or zeros and empty
// texts.
Json::Value ExampleOf(const Schema& schema, Optionals optionals);

}  // namespace vexa::api
