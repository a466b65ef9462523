#include "cli/session_list_command.h"

#include <fmt/format.h>

#include <array>
#include <ctime>

#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/time_text.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace vexa::cli {
namespace {

constexpr const char* kList = "/webapi/VEXA.Core.Session/list";
constexpr const char* kEnd = "/webapi/VEXA.Core.Session/end";

constexpr std::array kColumns = {Column{"SESSION", "id"},    Column{"USER", "user"},           Column{"FROM", "from"},
                                 Column{"LOGIN", "created"}, Column{"LAST USED", "last_used"}, Column{"", "current"}};

Json::Value WithTexts(const Json::Value& sessions) {
  const std::time_t now = std::time(nullptr);
  Json::Value list(Json::arrayValue);
  for (const Json::Value& session : VexaVirtualization::json::Elements(sessions)) {
    Json::Value& row = list.append(Json::Value(Json::objectValue));
    for (const char* name : {"id", "user", "from"}) row[name] = Text(Member(session, name));
    for (const char* name : {"created", "last_used"}) {
      const auto seconds = Integer(Member(session, name));
      row[name] = seconds ? FormatTime(*seconds, now) : "";
    }
    row["current"] = IsTrue(Member(session, "current")) ? "this login" : "";
  }
  return list;
}

}  // namespace

ExitCode RunSessionList(const GlobalOptions& global, const SessionListOptions& options) {
  if (!IsValidUtf8(options.user)) return Report(EmptyOrNotUtf8("user's name"));
  Json::Value parameters(Json::objectValue);
  if (!options.user.empty()) parameters["user"] = options.user;
  if (options.all) parameters["all"] = true;
  const CallOutcome outcome = CallServer(global, kList, RenderJson(parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const Json::Value& sessions = Member(outcome.data, "sessions");
  if (!sessions.isArray()) return Report(MissingInReply("sessions"));
  if (global.json) return PrintJson(sessions);
  PrintRows(WithTexts(sessions), kColumns);
  return ExitCode::kOk;
}

ExitCode RunSessionEnd(const GlobalOptions& global, const SessionEndOptions& options) {
  const bool is_one = options.user.empty();
  if (is_one == options.id.empty()) {
    return Report(Error(ErrorCode::kInvalid, "Name either one session or, with --user, the user all of whose end"));
  }
  if (!IsValidUtf8(options.id + options.user)) return Report(EmptyOrNotUtf8("session or user"));
  const CallOutcome outcome =
      CallServer(global, kEnd, is_one ? ParameterJson("id", options.id) : ParameterJson("user", options.user));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (is_one) return PrintConfirmation(global, fmt::format("Ended the session '{}'.", Printable(options.id)));
  return PrintConfirmation(
      global, fmt::format("Ended {} sessions of the user '{}'.", Printable(Text(Member(outcome.data, "ended"))),
                          Printable(options.user)));
}

}  // namespace vexa::cli
