#include "cli/account_output.h"

#include <iostream>

#include "cli/printable.h"
#include "cli/reply.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

std::string GroupNames(const Json::Value& user) {
  std::string result;
  for (const Json::Value& group : VexaVirtualization::json::Elements(Member(user, "groups"))) {
    result += (result.empty() ? "" : ", ") + Text(Member(group, "name"));
  }
  return result;
}

}  // namespace

ExitCode Say(const GlobalOptions& global, const std::string& sentence) {
  if (!global.quiet) std::cout << sentence << '\n';
  return ExitCode::kOk;
}

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

std::string Granted(const std::string& name) { return "Granted to '" + Printable(name) + "'."; }
std::string Revoked(const std::string& name) { return "Revoked from '" + Printable(name) + "'."; }
std::string LevelIs(const std::string& name, const std::string& level) {
  return "The level of '" + Printable(name) + "' is now '" + Printable(level) + "'.";
}
std::string Dropped(const std::string& name) { return "Dropped what was granted to '" + Printable(name) + "'."; }

}  // namespace vexa::cli
