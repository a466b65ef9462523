#include "cli/guest_pending.h"

#include <iostream>
#include <set>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/power_command.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr const char* kApply = "/webapi/VEXA.Virtualization.Guest/apply";

std::string ValueText(const Json::Value& value) {
  if (value.isNull()) return "-";
  return value.isObject() || value.isArray() ? RenderJson(value, JsonLayout::kOneLine) : Text(value);
}

CallOutcome ReadStatus(const GlobalOptions& global, const std::string& guest_id) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return {};
  HttpClient client(*connect);
  return TryApi(client, kGuestStatus, ParameterJson("guest_id", guest_id));
}

}  // namespace

void PrintPending(const Json::Value& reply) {
  const std::string reason = Text(Member(reply, "pending_reason"));
  if (!reason.empty()) std::cout << "\nWaiting for the next start\nunknown: " << Printable(reason) << '\n';
  const Json::Value& pending = Member(reply, "pending");
  if (!pending.isArray() || pending.empty()) return;
  std::cout << "\nWaiting for the next start\n";
  Table table{{"PROPERTY", "ID", "NOW", "NEXT"}, {}};
  for (const Json::Value& element : pending) {
    table.rows.push_back({Text(Member(element, "property")), Text(Member(element, "id")),
                          ValueText(Member(element, "running")), ValueText(Member(element, "recorded"))});
  }
  PrintTable(std::cout, table);
}

void ShowPending(const GlobalOptions& global, const std::string& guest_id) {
  PrintPending(ReadStatus(global, guest_id).data);
}

std::string PendingText(const GlobalOptions& global, const NamedGuest& guest) {
  const CallOutcome outcome = ReadStatus(global, guest.id);
  const Json::Value& pending = Member(outcome.data, "pending");
  if (!pending.isArray()) return "";
  std::set<std::string> names;
  for (const Json::Value& element : pending) names.insert(Text(Member(element, "property")));
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "; waits for its next start: " : ", ") + name;
  return text;
}

ExitCode RunGuestApply(const GlobalOptions& global, const GuestApplyOptions& options) {
  if (options.guest.empty() || !IsValidUtf8(options.guest)) return Report(EmptyOrNotUtf8("guest's id or name"));
  Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  connect->timeout = ActionTimeout(global);
  HttpClient client(*connect);
  std::string id;
  if (const ExitCode found = FindId(client, kGuests, options.guest, id); found != ExitCode::kOk) return found;
  Json::Value parameters(Json::objectValue);
  parameters["guest_id"] = id;
  if (options.force_eject) parameters["force_eject"] = true;
  const CallOutcome outcome = CallApi(client, kApply, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  const Json::Value& pending = Member(outcome.data, "pending");
  if (pending.isArray() && pending.empty() && !global.quiet)
    std::cout << Printable(options.guest) << ": runs as it is set\n";
  PrintPending(outcome.data);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
