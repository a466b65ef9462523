#include "cli/account_output.h"

#include <fmt/format.h>

#include <iostream>
#include <vector>

#include "cli/printable.h"
#include "cli/reply.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

std::string GroupNames(const Json::Value& user) {
  std::vector<std::string> names;
  for (const Json::Value& group : VexaVirtualization::json::Elements(Member(user, "groups"))) {
    names.push_back(Text(Member(group, "name")));
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

}  // namespace

ExitCode PrintUsers(const GlobalOptions& global, const Json::Value& users) {
  if (global.json) return PrintJson(users);
  Table table{{"USER", "ID", "ADMINISTRATOR", "GROUPS"}, {}};
  for (const Json::Value& user : VexaVirtualization::json::Elements(users)) {
    table.rows.push_back({Text(Member(user, "name")), Text(Member(user, "uid")),
                          IsTrue(Member(user, "administrator")) ? "yes" : "no", GroupNames(user)});
  }
  PrintTable(std::cout, table);
  return ExitCode::kOk;
}

std::string UserAdded(const std::string& name) { return fmt::format("Added user '{}'.", Printable(name)); }
std::string UserDeleted(const std::string& name) { return fmt::format("Deleted user '{}'.", Printable(name)); }
std::string PasswordChanged(const std::string& name) {
  return fmt::format("Changed the password of '{}'.", Printable(name));
}
std::string GroupsChanged(const std::string& name) {
  return fmt::format("Changed the groups of '{}'.", Printable(name));
}
std::string GrantsAdded(const std::string& name) { return fmt::format("Granted to '{}'.", Printable(name)); }
std::string GrantsRevoked(const std::string& name) { return fmt::format("Revoked from '{}'.", Printable(name)); }
std::string LevelChanged(const std::string& name, const std::string& level) {
  return fmt::format("The level of '{}' is now '{}'.", Printable(name), Printable(level));
}
std::string GrantsDropped(const std::string& name) {
  return fmt::format("Dropped all grants of '{}'.", Printable(name));
}

Error UserExists(const std::string& name) {
  return Error(ErrorCode::kConflict, fmt::format("There is a user '{}' already", name));
}

}  // namespace vexa::cli
