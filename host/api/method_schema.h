// What a method's row leaves out of the shapes of its parameters and its reply. Tables of these are beside the rows, in
// files of their own: host/api/user/schemas.
#pragma once

#include <string_view>
#include <vector>

#include "host/api/api_table.h"
#include "host/api/schema.h"

namespace vexa::api {

struct ParameterSchema {
  std::string_view name;
  Schema schema;  // without type and description, which the row has
};

struct MethodSchema {
  std::string_view api;
  std::string_view method;
  std::vector<ParameterSchema> parameters;
  Schema reply;  // of the reply's "data"
};

// The rows with the schemas of their methods. A schema whose method has no row is left out: a host may lack some. One
// for a parameter that the method's row does not have is a programming error: std::logic_error.
std::vector<ApiRow> WithSchemas(std::vector<ApiRow> rows, const std::vector<MethodSchema>& schemas);

}  // namespace vexa::api
