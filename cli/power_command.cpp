#include "cli/power_command.h"

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <map>
#include <utility>

#include "cli/api_paths.h"
#include "cli/guest_action_runner.h"
#include "cli/guest_names.h"
#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/parallel.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr int kActionTimeoutS = 3600;

// The names of the hosts, by id. Empty when they cannot be read: the ids are printed then.
std::map<std::string, std::string> HostNames(HttpClient& client) {
  std::map<std::string, std::string> names;
  const CallOutcome outcome = TryApi(client, kHostList, "{}");
  const Json::Value& hosts = Member(outcome.data, "hosts");
  if (!hosts.isArray()) return names;
  for (const Json::Value& host : hosts) names[Text(Member(host, "host_id"))] = Text(Member(host, "name"));
  return names;
}

// Lists the guests to be deleted and asks the user to type "yes".
ExitCode Confirm(HttpClient& client, const std::vector<NamedGuest>& guests) {
  Table table{{"NAME", "GUEST", "DISKS"}, {}};
  for (const NamedGuest& guest : guests) {
    const CallOutcome outcome = CallApi(client, kGuestGet, ParameterJson("guest_id", guest.id));
    if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
    const Json::Value& disks = Member(outcome.data, "vdisks");
    if (!disks.isArray()) return Report(MissingInReply("disks"));
    table.rows.push_back({guest.name, guest.id, std::to_string(disks.size())});
  }
  std::cerr << "To be deleted, with all their disks:\n";
  PrintTable(std::cerr, table);
  std::cerr << "This cannot be undone. Type 'yes' to delete: " << std::flush;
  std::string answer;
  std::getline(std::cin, answer);
  if (answer == "yes") return ExitCode::kOk;
  std::cerr << "vexa: Nothing was deleted\n";
  return ExitCode::kFailed;
}

}  // namespace

std::chrono::seconds ActionTimeout(const GlobalOptions& global) {
  return std::chrono::seconds(global.timeout_s.value_or(kActionTimeoutS));
}

ExitCode RunGuestAction(const GlobalOptions& global, const GuestActionOptions& options) {
  const bool must_confirm = options.action == GuestAction::kDelete && options.confirmation == Confirmation::kAsk;
  if (must_confirm && ::isatty(STDIN_FILENO) == 0) {
    return Report(Error(ErrorCode::kInvalid,
                        "Cannot ask for confirmation because standard input is not a terminal. "
                        "Use --yes to delete without asking"));
  }
  const auto is_valid = [](const std::string& id_or_name) { return !id_or_name.empty() && IsValidUtf8(id_or_name); };
  if (!std::ranges::all_of(options.guests, is_valid)) return Report(EmptyOrNotUtf8("guest's id or name"));
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  GuestActionRunner::Parts parts;
  parts.queries = *connect;
  parts.calls = *connect;
  parts.calls.timeout = ActionTimeout(global);
  parts.options = options;
  parts.quiet = global.quiet;
  parts.json = global.json;
  HttpClient client(*connect);
  const CallOutcome listed = ListObjects(client, kGuests);
  if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
  const ExitCode found = FindGuests(Member(listed.data, "guests"), options.guests, parts.guests);
  if (found != ExitCode::kOk) return found;
  if (must_confirm) {
    if (const ExitCode confirmed = Confirm(client, parts.guests); confirmed != ExitCode::kOk) return confirmed;
  }
  if (options.action == GuestAction::kStart) parts.host_names = HostNames(client);
  const std::size_t count = parts.guests.size();
  GuestActionRunner runner(std::move(parts));
  ParallelOptions parallel;
  parallel.on_change = [&runner] { runner.Show(); };
  parallel.on_interrupt = [&runner] { runner.ShowInterrupted(); };
  RunInParallel(count, parallel, [&runner](std::size_t index) { runner.Work(index); });
  return runner.Finish();
}

}  // namespace vexa::cli
