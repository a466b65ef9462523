#include "cli/guest_edit_command.h"

#include <fmt/format.h>

#include <iostream>
#include <optional>
#include <utility>

#include "cli/api_paths.h"
#include "cli/editor.h"
#include "cli/guest_set_command.h"
#include "cli/guest_settings_text.h"
#include "cli/listing.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr int kSignalExitBase = 128;  // the shells' convention for an end by a signal

void KeepForUser(const std::string& text) {
  const Result<std::string> path = SaveForUser(text);
  if (path) {
    std::cerr << "vexa: Your text is kept in '" << Printable(*path) << "'\n";
  } else {
    Report(path.error());
    std::cerr << text;  // otherwise the user's work would be lost
  }
}

// The valid changes that the user made, or the exit code when nothing is to be sent.
struct EditRequest {
  Json::Value parameters;
  std::string text;  // as the user edited it
  std::optional<ExitCode> exit_code;
};

EditRequest StopWith(ExitCode exit_code) { return {Json::Value(), "", exit_code}; }

EditRequest EndInterrupted(const std::string& original, const std::string& text, int signal) {
  std::cerr << "vexa: Interrupted, and nothing was changed\n";
  if (text != original) KeepForUser(text);
  return StopWith(static_cast<ExitCode>(kSignalExitBase + signal));
}

Result<Json::Value> ParseChanges(const Json::Value& before, const std::string& text) {
  const Result<Json::Value> after = ParseSettings(text);
  if (!after) return after.error();
  Json::Value changed = ChangedSettings(before, *after);
  if (const Status checked = CheckParameters(changed); !checked) return checked.error();
  return changed;
}

EditRequest EditUntilValid(const NamedGuest& guest, const Json::Value& before) {
  const std::string original =
      SettingsText(fmt::format("The settings of the guest '{}' ({})", guest.name, guest.id), before);
  std::string text = original;
  while (true) {
    Result<EditorResult> edited = RunEditor(text);
    if (!edited) {
      Report(edited.error());
      if (text != original) KeepForUser(text);
      return StopWith(ExitCode::kFailed);
    }
    if (edited->outcome == EditorResult::Outcome::kInterrupted)
      return EndInterrupted(original, edited->text, edited->signal);
    if (edited->outcome == EditorResult::Outcome::kAborted) {
      std::cerr << "vexa: The editor " << edited->reason << ", so nothing was changed\n";
      return StopWith(ExitCode::kFailed);
    }
    text = std::move(edited->text);
    Result<Json::Value> changes = ParseChanges(before, text);
    if (changes) return {std::move(*changes), std::move(text), std::nullopt};
    std::cerr << "vexa: " << Printable(changes.error().message()) << '\n';
    const EditAgainChoice answer = AskToEditAgain();
    if (answer.again == EditAgain::kInterrupted) return EndInterrupted(original, text, answer.signal);
    if (answer.again == EditAgain::kYes) continue;
    std::cerr << "vexa: Nothing was changed\n";
    KeepForUser(text);
    return StopWith(ExitCode::kFailed);
  }
}

}  // namespace

ExitCode RunGuestEdit(const GlobalOptions& global, const std::string& id_or_name) {
  if (id_or_name.empty() || !IsValidUtf8(id_or_name)) return Report(EmptyOrNotUtf8("guest's id or name"));
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  NamedGuest guest;
  if (const ExitCode found = FindGuest(client, id_or_name, guest); found != ExitCode::kOk) return found;
  const CallOutcome got = CallApi(client, kGuestGet, ParameterJson("guest_id", guest.id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  if (!got.data.isObject()) return Report(MissingInReply("guest"));
  const EditRequest request = EditUntilValid(guest, SettingsOf(got.data));
  if (request.exit_code) return *request.exit_code;
  if (request.parameters.empty()) return ShowOutcome(global, guest, CallOutcome(), "Nothing was changed");
  const auto keep = [&] { KeepForUser(request.text); };
  const CallOutcome outcome = SendEdit(global, *connect, guest, request.parameters, keep);
  const ExitCode exit_code = ShowEditResult(global, guest, request.parameters, outcome);
  if (!WasGuestEdited(outcome)) keep();
  return exit_code;
}

}  // namespace vexa::cli
