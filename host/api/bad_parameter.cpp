#include "host/api/bad_parameter.h"

#include <fmt/format.h>

#include "host/base/sanitize_for_log.h"
#include "json/readers.h"

namespace vexa::api {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::size_t kMaxQuoted = 128;

// What a request may have instead.
std::string ListParameters(const ApiRow& row) {
  if (row.parameters.empty()) return "The method has no parameters";
  std::string names;
  for (const Parameter& parameter : row.parameters) {
    names += fmt::format("{}'{}'", names.empty() ? "" : ", ", parameter.name);
  }
  return "The method has " + names;
}

}  // namespace

std::string DescribeBadParameter(const ApiRow& row, const Json::Value& parameters) {
  for (const SchemaMember& parameter : row.request.members) {
    const Json::Value* const value = json::FindMember(parameters, parameter.name);
    if (!value && parameter.necessity == Necessity::kRequired) {
      return fmt::format("The parameter '{}' is missing", parameter.name);
    }
    if (!value) continue;
    const std::string misfit = DescribeMisfit(parameter.schema, *value, parameter.name);
    if (!misfit.empty()) return "The parameter " + misfit;
  }
  return "";
}

std::string DescribeUnknownParameter(const ApiRow& row, const Json::Value& parameters) {
  // A method without parameters takes none, whereas other objects without known members may have any.
  if (row.request.members.empty()) {
    const std::vector<std::string> names = json::MemberNames(parameters);
    if (names.empty()) return "";
    return fmt::format("There is no parameter '{}'. {}", SanitizeForLog(names.front(), kMaxQuoted),
                       ListParameters(row));
  }
  const std::optional<UnknownMember> unknown = FindUnknownMember(row.request, parameters);
  if (!unknown) return "";
  if (!unknown->suggestion.empty()) {
    return fmt::format("There is no parameter '{}'; did you mean '{}'?", unknown->path, unknown->suggestion);
  }
  return fmt::format("There is no parameter '{}'. {}", unknown->path, ListParameters(row));
}

}  // namespace vexa::api
