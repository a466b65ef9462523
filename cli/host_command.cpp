#include "cli/host_command.h"

#include <array>
#include <charconv>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <utility>
#include <vector>

#include "cli/api_paths.h"
#include "cli/listing.h"
#include "cli/moment.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"

namespace vexa::cli {
namespace {

constexpr const char* kInfo = "/webapi/VEXA.Virtualization.Guest/info";

constexpr std::array kHostColumns = {Column{"HOST", "host_id"}, Column{"NAME", "name"}, Column{"STATE", "state"},
                                     Column{"VERSION", "version_state"}};
constexpr std::array kInterfaceColumns = {Column{"INTERFACE", "ifname"}, Column{"TYPE", "type"},
                                          Column{"ADDRESS", "ip"},       Column{"MAC", "mac"},
                                          Column{"SPEED", "speed"},      Column{"STATUS", "status"}};

std::string JoinTexts(const Json::Value& list) {
  std::string result;
  if (!list.isArray()) return result;
  for (const Json::Value& element : list) result += (result.empty() ? "" : ", ") + Text(element);
  return result;
}

// "3 d 04:05:06" for a number of seconds, which may come as text; any other value unchanged.
std::string FormatUptime(const Json::Value& value) {
  const std::string text = Text(value);
  std::uint64_t seconds = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, seconds);
  if (error != std::errc() || stop != end) return text;
  char clock[16];
  std::snprintf(clock, sizeof clock, "%02u:%02u:%02u", static_cast<unsigned>(seconds / 3600 % 24),
                static_cast<unsigned>(seconds / 60 % 60), static_cast<unsigned>(seconds % 60));
  const std::uint64_t days = seconds / 86'400;
  return days == 0 ? clock : std::to_string(days) + " d " + clock;
}

// `value` followed by a unit; nothing for a missing value.
std::string WithUnit(const Json::Value& value, const char* unit) {
  const std::string text = Shown(value);
  return text.empty() ? text : text + " " + unit;
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
  AddField(fields, "State", StateInWords(host, "state"));
  AddField(fields, "As of", AsOf(host));
  AddField(fields, "Version", Text(Member(host, "version")));
  AddField(fields, "Addresses", JoinTexts(Member(host, "addresses")));
  AddField(fields, "System", Text(Member(system, "version")));
  AddField(fields, "Model", Text(Member(system, "model")));
  AddField(fields, "Serial number", Text(Member(system, "serial")));
  AddField(fields, "Processor", Text(Member(cpu, "model")));
  AddField(fields, "Cores", Shown(Member(host, "cpu_cores")));
  AddField(fields, "Clock", WithUnit(Member(host, "cpu_clock_speed"), "MHz"));
  AddField(fields, "Memory", WithUnit(Member(host, "ram_size"), "KiB"));
  AddField(fields, "Uptime", FormatUptime(Member(system, "uptime")));
  AddField(fields, "Load, programs", WithUnit(Member(load, "user_load"), "%"));
  AddField(fields, "Load, system", WithUnit(Member(load, "system_load"), "%"));
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

// The data of "list", checked.
CallOutcome ListHosts(HttpClient& client) {
  CallOutcome outcome = CallApi(client, kHostList, "{}");
  if (outcome.exit_code == ExitCode::kOk && !Member(outcome.data, "hosts").isArray()) {
    outcome.exit_code = Report(NotUnderstood("hosts"));
  }
  return outcome;
}

}  // namespace

ExitCode RunHostList(const GlobalOptions& global) {
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  const CallOutcome outcome = ListHosts(client);
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  PrintRows(WithStatesInWords(Member(outcome.data, "hosts"), "state"), kHostColumns);
  return ExitCode::kOk;
}

ExitCode RunHostShow(const GlobalOptions& global, const std::string& host) {
  if (!IsValidUtf8(host)) return Report(NotText("host's id or name"));
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  std::string id = host;
  if (!host.empty() && !IsUuidForm(host)) {
    const CallOutcome listed = ListHosts(client);
    if (listed.exit_code != ExitCode::kOk) return listed.exit_code;
    const Result<std::string> found = FindByName(Member(listed.data, "hosts"), kHostNaming, host);
    if (!found) return Report(found.error());
    id = *found;
  }
  const CallOutcome outcome = CallApi(client, kHostGet, id.empty() ? "{}" : OneParameter("host_id", id));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(NotUnderstood("host"));
  PrintHost(outcome.data);
  return ExitCode::kOk;
}

ExitCode RunGuestInfo(const GlobalOptions& global, const std::string& guest_id) {
  if (guest_id.empty() || !IsValidUtf8(guest_id)) return Report(NotText("guest's id"));
  const Result<HttpClientOptions> options = ConnectOptions(global);
  if (!options) return Report(options.error());
  HttpClient client(*options);
  const CallOutcome outcome = CallApi(client, kInfo, OneParameter("guest_id", guest_id));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  if (global.json) return PrintJson(outcome.data);
  if (!outcome.data.isObject()) return Report(NotUnderstood("guest"));
  const bool answered = IsTrue(Member(outcome.data, "answered"));
  Fields fields{{"Guest", guest_id}, {"Host answered", answered ? "yes" : "no, or the guest does not run"}};
  if (answered) {
    fields.emplace_back("Addresses", JoinTexts(Member(outcome.data, "ip")));
    fields.emplace_back("Uptime", FormatUptime(Member(outcome.data, "uptime")));
    fields.emplace_back("Agent", IsTrue(Member(outcome.data, "has_agent")) ? "yes" : "no");
  }
  PrintFields(std::cout, fields);
  return ExitCode::kOk;
}

}  // namespace vexa::cli
