#include "cli/host_command.h"

#include <fmt/format.h>

#include <array>
#include <charconv>
#include <cstdint>
#include <iostream>
#include <optional>
#include <utility>
#include <vector>

#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/time_text.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr const char* kInfo = "/webapi/VEXA.Virtualization.Guest/info";

constexpr std::array kHostColumns = {Column{"HOST", "host_id", true}, Column{"NAME", "name"}, Column{"STATE", "state"},
                                     Column{"VERSION", "version_state"}, Column{"CERTIFICATE", "certificate"}};
constexpr std::array kInterfaceColumns = {Column{"INTERFACE", "ifname"}, Column{"TYPE", "type"},
                                          Column{"ADDRESS", "ip"},       Column{"MAC", "mac"},
                                          Column{"SPEED", "speed"},      Column{"STATUS", "status"}};

// "3 d 04:05:06" for a number of seconds, which may be a string in the reply; any other value unchanged.
std::string FormatUptime(const Json::Value& value) {
  const std::string text = Text(value);
  std::uint64_t seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || stop != end) return text;
  const std::string clock = fmt::format("{:02}:{:02}:{:02}", seconds / 3600 % 24, seconds / 60 % 60, seconds % 60);
  const std::uint64_t days = seconds / 86'400;
  return days == 0 ? clock : fmt::format("{} d {}", days, clock);
}

// `value` followed by a unit; nothing for a missing value.
std::string WithUnit(const Json::Value& value, const char* unit) {
  const std::string text = ReadableText(value);
  return text.empty() ? text : fmt::format("{} {}", text, unit);
}

void AddField(Fields& fields, const char* label, std::string text) {
  if (!text.empty()) fields.emplace_back(label, std::move(text));
}

void PrintHost(const Json::Value& host) {
  const Json::Value& system = Member(host, "system");
  const Json::Value& cpu = Member(system, "cpu");
  const Json::Value& load = Member(Member(host, "utilization"), "cpu");
  const Json::Value& memory = Member(Member(host, "utilization"), "memory");
  const Json::Value& resources = Member(host, "resources");
  Fields fields;
  AddField(fields, "Host", Text(Member(host, "host_id")));
  AddField(fields, "Name", Text(Member(host, "name")));
  AddField(fields, "State", StateText(host, "state"));
  AddField(fields, "As of", AgeText(host));
  if (const Json::Value& placement = Member(host, "placement"); placement.isBool()) {
    AddField(fields, "Placement", IsTrue(placement) ? "on" : "off");
  }
  AddField(fields, "Version", Text(Member(host, "version")));
  AddField(fields, "Addresses", JoinValues(Member(host, "addresses")));
  AddField(fields, "System", Text(Member(system, "version")));
  AddField(fields, "Model", Text(Member(system, "model")));
  AddField(fields, "Serial number", Text(Member(system, "serial")));
  AddField(fields, "Processor", Text(Member(cpu, "model")));
  AddField(fields, "Cores", ReadableText(Member(host, "cpu_cores")));
  AddField(fields, "Clock", WithUnit(Member(host, "cpu_clock_speed"), "MHz"));
  AddField(fields, "Memory", WithUnit(Member(host, "ram_size"), "KiB"));
  AddField(fields, "Uptime", FormatUptime(Member(system, "uptime")));
  AddField(fields, "CPU load (user)", WithUnit(Member(load, "user_load"), "%"));
  AddField(fields, "CPU load (system)", WithUnit(Member(load, "system_load"), "%"));
  AddField(fields, "Free memory", WithUnit(Member(memory, "avail_real"), "KiB"));
  AddField(fields, "Free CPU", WithUnit(Member(resources, "free_cpu_ghz"), "GHz"));
  PrintFields(std::cout, fields);
  const Json::Value& interfaces = Member(host, "interfaces");
  std::cout << "\nNetwork interfaces\n";
  if (!interfaces.isArray() || interfaces.empty()) {
    std::cout << "none\n";
  } else {
    PrintRows(interfaces, kInterfaceColumns);
  }
}

}  // namespace

ExitCode RunHostList(const GlobalOptions& global) {
  const CallOutcome outcome = ListObjects(global, kHosts);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  PrintRows(WithStateTexts(Member(outcome.data, "hosts"), "state"), kHostColumns,
            global.ids ? Ids::kShown : Ids::kHidden);
  return ExitCode::kOk;
}

ExitCode RunHostShow(const GlobalOptions& global, const std::string& host) {
  return ShowObject(global, kHosts, kHostGet, host.empty() ? std::nullopt : std::optional(host), PrintHost);
}

ExitCode RunGuestInfo(const GlobalOptions& global, const std::string& guest) {
  std::string guest_id;
  const CallOutcome outcome = GetObject(global, kGuests, kInfo, guest, guest_id);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(MissingInReply("guest"));
  const bool answered = IsTrue(Member(outcome.data, "answered"));
  Fields fields{{"Guest", guest_id}, {"Host answered", answered ? "yes" : "no, or the guest does not run"}};
  if (answered) {
    fields.emplace_back("Addresses", JoinValues(Member(outcome.data, "ip")));
    fields.emplace_back("Uptime", FormatUptime(Member(outcome.data, "uptime")));
    fields.emplace_back("Agent", IsTrue(Member(outcome.data, "has_agent")) ? "yes" : "no");
  }
  PrintFields(std::cout, fields);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
