#include "cli/guest_command.h"

#include <fmt/format.h>

#include <array>
#include <iostream>
#include <limits>
#include <utility>
#include <vector>

#include "cli/api_paths.h"
#include "cli/guest_pending.h"
#include "cli/listing.h"
#include "cli/object_names.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr std::int64_t kUnitStep = 1024;

enum class Kind { kText, kYesNo, kKib, kMib, kList };

struct Field {
  const char* label;
  const char* member;
  Kind kind;
};

constexpr std::array kDiskFields = {
    Field{"DISK", "vdisk_id", Kind::kText},      Field{"SIZE", "size", Kind::kMib},
    Field{"TYPE", "lun_type", Kind::kText},      Field{"MODE", "vdisk_mode", Kind::kText},
    Field{"DUMMY", "is_dummy", Kind::kYesNo},    Field{"UNMAP", "unmap", Kind::kYesNo},
    Field{"META", "is_meta_disk", Kind::kYesNo},
};

constexpr std::array kNicFields = {
    Field{"INTERFACE", "vnic_id", Kind::kText},
    Field{"NETWORK", "network_id", Kind::kText},
    Field{"MAC", "mac", Kind::kText},
    Field{"TYPE", "vnic_type", Kind::kText},
    Field{"SR-IOV", "prefer_sriov", Kind::kYesNo},
};

Kind KindOf(const GuestSetting& setting) {
  if (setting.unit == Unit::kMib) return Kind::kKib;  // "set" takes MiB, the reply has KiB
  if (setting.type == SettingType::kBoolean) return Kind::kYesNo;
  return setting.type == SettingType::kList ? Kind::kList : Kind::kText;
}

// The guest's settings and other members of the reply, in the order in which they are printed.
std::vector<Field> GeneralFields() {
  std::vector<Field> fields;
  bool has_ha_field = false;
  for (const GuestSetting* setting : GuestSettingsByTopic()) {
    // High availability concerns the start of a guest, so it follows the settings of that topic.
    if (setting->topic > SettingTopic::kHostStart && !std::exchange(has_ha_field, true)) {
      fields.push_back({"High availability", "is_ha_enabled", Kind::kYesNo});
    }
    if (setting->label) fields.push_back({setting->label, setting->name, KindOf(*setting)});
  }
  fields.push_back({"General guest", "is_general_vm", Kind::kYesNo});
  return fields;
}

// "4 GiB" for a number of KiB that is a whole number of GiB; the largest unit without a fraction.
std::string FormatSize(std::int64_t kib) {
  constexpr std::array units = {"KiB", "MiB", "GiB", "TiB"};
  std::size_t unit = 0;
  while (kib != 0 && kib % kUnitStep == 0 && unit + 1 < units.size()) {
    kib /= kUnitStep;
    ++unit;
  }
  return fmt::format("{} {}", kib, units[unit]);
}

// Sizes come as numbers or as text.
std::string FormatSizeValue(const Json::Value& value, std::int64_t kib_per_unit) {
  const std::string text = Text(value);
  std::int64_t number = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') return text;
    // Leaves room for another digit and for the unit.
    if (number > std::numeric_limits<std::int64_t>::max() / kUnitStep / 16) return text;
    number = number * 10 + (c - '0');
  }
  return text.empty() ? text : FormatSize(number * kib_per_unit);
}

std::string FormatList(const Json::Value& value) {
  if (!value.isArray()) return Text(value);
  std::string result;
  for (const Json::Value& element : value) {
    const std::string text = Text(element);
    result += (result.empty() ? "" : ", ") + (text.empty() ? "-" : text);
  }
  return result;
}

std::string Format(const Json::Value& value, Kind kind) {
  switch (kind) {
    case Kind::kText:
      return Text(value);
    case Kind::kYesNo:
      return value.isBool() ? (value.asBool() ? "yes" : "no") : Text(value);
    case Kind::kKib:
      return FormatSizeValue(value, 1);
    case Kind::kMib:
      return FormatSizeValue(value, kUnitStep);
    case Kind::kList:
      return FormatList(value);
  }
  return "";
}

template <std::size_t n>
void PrintList(const char* title, const Json::Value& list, const std::array<Field, n>& columns) {
  std::cout << '\n' << title << '\n';
  if (!list.isArray() || list.empty()) {
    std::cout << "none\n";
    return;
  }
  Table table;
  for (const Field& column : columns) table.header.emplace_back(column.label);
  for (const Json::Value& element : list) {
    auto& row = table.rows.emplace_back();
    for (const Field& column : columns) row.push_back(Format(Member(element, column.member), column.kind));
  }
  PrintTable(std::cout, table);
}

// The reply to "get" with the names of its repository, networks and images in place of their ids, as far as these are
// known.
Json::Value WithNames(const GlobalOptions& global, Json::Value guest) {
  ObjectNames names(global);
  if (const std::string id = Text(Member(guest, "repo_id")); !id.empty()) {
    guest["repo_id"] = names.Of(kRepositories, id);
  }
  if (Member(guest, "vnics").isArray()) {
    for (Json::Value& nic : guest["vnics"]) {
      if (nic.isObject()) nic["network_id"] = names.Of(kNetworks, Text(Member(nic, "network_id")));
    }
  }
  if (Member(guest, "iso_images").isArray()) {
    for (Json::Value& image : guest["iso_images"]) {
      if (image.isString() && HasUuidForm(Text(image))) image = names.Of(kImages, Text(image));
    }
  }
  return guest;
}

}  // namespace

ExitCode RunGuestGet(const GlobalOptions& global, const std::string& guest) {
  std::string guest_id;
  const CallOutcome outcome = GetObject(global, kGuests, kGuestGet, guest, guest_id);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(MissingInReply("guest"));
  const Json::Value shown = WithNames(global, outcome.data);
  Fields fields{{"Guest", guest_id}};
  // A field that is missing from the reply is left out.
  for (const Field& field : GeneralFields()) {
    if (shown.isMember(field.member)) {
      fields.emplace_back(field.label, Format(Member(shown, field.member), field.kind));
    }
  }
  PrintFields(std::cout, fields);
  PrintList("Virtual disks", Member(shown, "vdisks"), kDiskFields);
  PrintList("Network interfaces", Member(shown, "vnics"), kNicFields);
  ShowPending(global, guest_id);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
