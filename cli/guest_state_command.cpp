#include "cli/guest_state_command.h"

#include <array>
#include <iostream>
#include <utility>

#include "cli/api_paths.h"
#include "cli/guest_names.h"
#include "cli/listing.h"
#include "cli/moment.h"
#include "cli/printable.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr std::array kGuestColumns = {Column{"GUEST", "guest_id"}, Column{"NAME", "guest_name"},
                                      Column{"STATE", "status"},   Column{"SEVERITY", "status_type"},
                                      Column{"HOST", "host_id"},   Column{"AGE", "age_s"}};
constexpr std::array kDiskColumns = {Column{"DISK", "vdisk_id"}, Column{"NAME", "name"}, Column{"STATE", "status"},
                                     Column{"SEVERITY", "status_type"}};
constexpr std::array kHostColumns = {Column{"HOST", "host_id"}, Column{"NAME", "host_name"},
                                     Column{"STATE", "ha_host_status_type"}};

// "warning (ha_warn_host_short_ram)"
std::string WithReason(const Json::Value& shown) {
  const std::string reason = Text(Member(shown, "status_reason"));
  return Text(Member(shown, "status_type")) + (reason.empty() ? "" : " (" + reason + ")");
}

void PrintStatus(const Json::Value& guest) {
  Fields fields{{"Guest", Text(Member(guest, "guest_id"))},
                {"Name", Text(Member(guest, "guest_name"))},
                {"Host", Text(Member(guest, "host_id"))},
                {"State", StateInWords(guest, "status")},
                {"Severity", WithReason(guest)}};
  if (std::string as_of = AsOf(guest); !as_of.empty()) fields.emplace_back("As of", std::move(as_of));
  const std::string off = Text(Member(Member(guest, "shutdown"), "reason"));
  if (!off.empty()) fields.emplace_back("Off because", off);
  const Json::Value& ha = Member(guest, "ha");
  if (ha.isObject()) {
    fields.emplace_back("High availability", Text(Member(ha, "status")));
    fields.emplace_back("Severity of it", WithReason(ha));
  }
  PrintFields(std::cout, fields);
  const Json::Value& disks = Member(guest, "disks");
  if (disks.isArray() && !disks.empty()) {
    std::cout << "\nDisks\n";
    PrintRows(disks, kDiskColumns);
  }
  const Json::Value& hosts = Member(ha, "hosts");
  if (!hosts.isArray() || hosts.empty()) return;
  std::cout << "\nHosts of its group\n";
  PrintRows(hosts, kHostColumns);
}

}  // namespace

ExitCode RunGuestList(const GlobalOptions& global) {
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  const CallOutcome outcome = ListGuests(client);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  PrintRows(WithStatesInWords(Member(outcome.data, "guests"), "status"), kGuestColumns);
  return ExitCode::kOk;
}

ExitCode RunGuestStatus(const GlobalOptions& global, const std::string& guest) {
  if (guest.empty() || !IsValidUtf8(guest)) return Report(NotText("guest's id or name"));
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  std::string id = guest;
  if (!IsUuidForm(guest)) {
    const CallOutcome listed = ListGuests(client);
    if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
    const Result<std::string> found = FindByName(Member(listed.data, "guests"), kGuestNaming, guest);
    if (!found) return Report(found.error());
    id = *found;
  }
  const CallOutcome outcome = CallApi(client, kGuestStatus, OneParameter("guest_id", id));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(NotUnderstood("guest"));
  PrintStatus(outcome.data);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
