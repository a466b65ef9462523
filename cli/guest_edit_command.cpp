#include "cli/guest_edit_command.h"

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

constexpr int kSignalBase = 128;  // the shells' convention for an end by a signal

void Keep(const std::string& text) {
  const Result<std::string> path = KeepText(text);
  if (path) {
    std::cerr << "vexa: Your text is kept in '" << Printable(*path) << "'\n";
  } else {
    Report(path.error());
    std::cerr << text;  // the last resort
  }
}

// The requested changes, checked; or an exit code when nothing is to be sent.
struct Wanted {
  Json::Value parameters;
  std::string text;
  std::optional<ExitCode> exit_code;
};

Wanted End(ExitCode exit_code) { return {Json::Value(), "", exit_code}; }

Wanted EndInterrupted(const std::string& shown, const std::string& text, int signal) {
  std::cerr << "vexa: Interrupted, and nothing was changed\n";
  if (text != shown) Keep(text);
  return End(static_cast<ExitCode>(kSignalBase + signal));
}

Result<Json::Value> Changes(const Json::Value& before, const std::string& text) {
  const Result<Json::Value> after = ParseSettings(text);
  if (!after) return after.error();
  Json::Value changed = ChangedSettings(before, *after);
  if (const Status checked = CheckParameters(changed); !checked) return checked.error();
  return changed;
}

Wanted AskEditor(const NamedGuest& guest, const Json::Value& before) {
  const std::string shown = SettingsText("The settings of the guest '" + guest.name + "' (" + guest.id + ")", before);
  std::string text = shown;
  while (true) {
    Result<Edited> edited = RunEditor(text);
    if (!edited) {
      Report(edited.error());
      if (text != shown) Keep(text);
      return End(ExitCode::kFailed);
    }
    if (edited->end == Edited::End::kInterrupted) return EndInterrupted(shown, edited->text, edited->signal);
    if (edited->end == Edited::End::kGivenUp) {
      std::cerr << "vexa: The editor " << edited->why << ", so nothing was changed\n";
      return End(ExitCode::kFailed);
    }
    text = std::move(edited->text);
    Result<Json::Value> changes = Changes(before, text);
    if (changes) return {std::move(*changes), std::move(text), std::nullopt};
    std::cerr << "vexa: " << Printable(changes.error().message()) << '\n';
    const AgainAnswer answer = AskAgain();
    if (answer.again == Again::kInterrupted) return EndInterrupted(shown, text, answer.signal);
    if (answer.again == Again::kYes) continue;
    std::cerr << "vexa: Nothing was changed\n";
    Keep(text);
    return End(ExitCode::kFailed);
  }
}

}  // namespace

ExitCode RunGuestEdit(const GlobalOptions& global, const std::string& word) {
  if (word.empty() || !IsValidUtf8(word)) return Report(NotText("guest's id or name"));
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  NamedGuest guest;
  if (const ExitCode found = FindGuest(client, word, guest); found != ExitCode::kOk) return found;
  const CallOutcome got = CallApi(client, kGuestGet, OneParameter("guest_id", guest.id));
  if (got.exit_code != ExitCode::kOk) return got.exit_code;
  if (!got.data.isObject()) return Report(NotUnderstood("guest"));
  const Wanted wanted = AskEditor(guest, SettingsOf(got.data));
  if (wanted.exit_code) return *wanted.exit_code;
  if (wanted.parameters.empty()) return ShowOutcome(global, guest, CallOutcome(), "Nothing was changed");
  const auto keep = [&] { Keep(wanted.text); };
  const CallOutcome outcome = SendEdit(global, *connect, guest, wanted.parameters, keep);
  const ExitCode exit_code = ShowEdit(global, guest, wanted.parameters, outcome);
  if (!WasEdited(outcome)) keep();
  return exit_code;
}

}  // namespace vexa::cli
