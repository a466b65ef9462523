#include "cli/guest_state_command.h"

#include <fmt/format.h>

#include <array>
#include <iostream>
#include <utility>

#include "cli/guest_pending.h"
#include "cli/listing.h"
#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/time_text.h"

namespace vexa::cli {
namespace {

constexpr std::array kGuestColumns = {Column{"GUEST", "guest_id", true}, Column{"NAME", "guest_name"},
                                      Column{"STATE", "status"},         Column{"SEVERITY", "status_type"},
                                      Column{"HOST", "host_id"},         Column{"AGE", "age_s", false, true}};
constexpr std::array kDiskColumns = {Column{"DISK", "vdisk_id"}, Column{"NAME", "name"}, Column{"STATE", "status"},
                                     Column{"SEVERITY", "status_type"}};
constexpr std::array kHostColumns = {Column{"HOST", "host_id", true}, Column{"NAME", "host_name"},
                                     Column{"STATE", "ha_host_status_type"}};

// "warning (ha_warn_host_short_ram)"
std::string SeverityText(const Json::Value& element) {
  const std::string reason = Text(Member(element, "status_reason"));
  const std::string severity = Text(Member(element, "status_type"));
  return reason.empty() ? severity : fmt::format("{} ({})", severity, reason);
}

void PrintStatus(const GlobalOptions& global, const Json::Value& guest) {
  Fields fields;
  if (global.ids) fields.emplace_back("Guest", Text(Member(guest, "guest_id")));
  fields.insert(fields.end(), {{"Name", Text(Member(guest, "guest_name"))},
                               {"Host", ObjectNames(global).Of(kHosts, Text(Member(guest, "host_id")))},
                               {"State", StateText(guest, "status")},
                               {"Severity", SeverityText(guest)}});
  if (const Json::Value& progress = Member(guest, "progress"); progress.isInt()) {
    fields.emplace_back("Progress", fmt::format("{} %", progress.asInt()));
  }
  if (std::string as_of = AgeText(guest); !as_of.empty()) fields.emplace_back("As of", std::move(as_of));
  const std::string off_reason = Text(Member(Member(guest, "shutdown"), "reason"));
  if (!off_reason.empty()) fields.emplace_back("Off because", off_reason);
  const Json::Value& ha = Member(guest, "ha");
  if (ha.isObject()) {
    fields.emplace_back("High availability", Text(Member(ha, "status")));
    fields.emplace_back("HA severity", SeverityText(ha));
  }
  PrintFields(std::cout, fields);
  const Json::Value& disks = Member(guest, "disks");
  if (disks.isArray() && !disks.empty()) {
    std::cout << "\nDisks\n";
    PrintRows(disks, kDiskColumns);
  }
  PrintPending(guest);
  const Json::Value& notes = Member(guest, "notes");
  if (notes.isArray() && !notes.empty()) {
    std::cout << "\nNotes\n";
    for (const Json::Value& note : notes) std::cout << Printable(Text(note)) << '\n';
  }
  const Json::Value& hosts = Member(ha, "hosts");
  if (!hosts.isArray() || hosts.empty()) return;
  std::cout << "\nHosts of its group\n";
  PrintRows(hosts, kHostColumns, global.ids ? Ids::kShown : Ids::kHidden);
}

}  // namespace

ExitCode RunGuestList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kGuests);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  Json::Value guests = WithStateTexts(Member(outcome.data, "guests"), "status");
  ObjectNames names(global);
  for (Json::Value& guest : guests) {
    if (!guest.isObject()) continue;
    guest["host_id"] = names.Of(kHosts, Text(Member(guest, "host_id")));
    // Without its name, its id is all that users know.
    if (!global.ids && Text(Member(guest, kGuests.name)).empty()) guest[kGuests.name] = Member(guest, kGuests.id);
  }
  PrintRows(guests, kGuestColumns, global.ids ? Ids::kShown : Ids::kHidden);
  return ExitCode::kOk;
}

ExitCode RunGuestStatus(const GlobalOptions& global, const std::string& guest) {
  return ShowObject(global, kGuests, kGuestStatus, guest,
                    [&global](const Json::Value& status) { PrintStatus(global, status); });
}

}  // namespace vexa::cli
