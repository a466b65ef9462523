#include "host/api/method_schema.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace vexa::api {
namespace {

void AddTo(ApiRow& row, const MethodSchema& method) {
  row.reply = method.reply;
  for (const ParameterSchema& shape : method.parameters) {
    const auto found = std::ranges::find(row.parameters, shape.name, &Parameter::name);
    if (found == row.parameters.end()) {
      throw std::logic_error(fmt::format("{} {} has no parameter '{}'", row.api, row.method, shape.name));
    }
    found->schema = shape.schema;
  }
}

}  // namespace

std::vector<ApiRow> WithSchemas(std::vector<ApiRow> rows, const std::vector<MethodSchema>& schemas) {
  for (ApiRow& row : rows) {
    const auto found = std::ranges::find_if(
        schemas, [&row](const MethodSchema& each) { return each.api == row.api && each.method == row.method; });
    if (found != schemas.end()) AddTo(row, *found);
  }
  return rows;
}

}  // namespace vexa::api
