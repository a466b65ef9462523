#include "json/readers.h"
#include "webapi/guest/guest.h"

namespace VexaVirtualization {
namespace {

constexpr std::uint32_t kNoId = UINT32_MAX;

// An invalid number must not become 0, which is a valid id.
std::uint32_t IdOf(const Json::Value& value) {
  return value.isConvertibleTo(Json::uintValue) ? json::UInt(value) : kNoId;
}

VexaCCC::tagGuestAdminRule RuleOf(const Json::Value& privilege) {
  VexaCCC::tagGuestAdminRule rule;
  rule.allow = json::Bool(json::Member(privilege, "allow"));
  rule.type = json::String(json::Member(privilege, "type"));
  rule.name = json::String(json::Member(privilege, "name"));
  const Json::Value* uid = json::FindMember(privilege, "uid");
  rule.kind = uid ? "users" : "groups";
  // Intentional: a rule with neither "uid" nor "gid" applies to group 0.
  rule.id = IdOf(uid ? *uid : json::Member(privilege, "gid"));
  return rule;
}

}  // namespace

std::vector<VexaCCC::tagGuestAdminRule> Guest::jsObject2vcGaRuleList(const Json::Value& privileges) {
  const Json::Value& elements = json::Elements(privileges);
  std::vector<VexaCCC::tagGuestAdminRule> rules;
  rules.reserve(elements.size());
  for (Json::ArrayIndex i = 0; i < elements.size(); ++i) rules.push_back(RuleOf(json::Element(elements, i)));
  return rules;
}

}  // namespace VexaVirtualization
