#include "cli/guest_create_command.h"

#include <fmt/format.h>

#include <charconv>
#include <iostream>
#include <optional>
#include <string_view>
#include <utility>

#include "cli/guest_set_arguments.h"
#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/power_command.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr const char* kCreateGuest = "/webapi/VEXA.Virtualization.Guest/create";
constexpr std::int64_t kMibPerGib = 1024;
constexpr std::int64_t kMibPerTib = 1024 * kMibPerGib;

Error Invalid(std::string text) { return Error(ErrorCode::kInvalid, std::move(text)); }

// A size in MiB: a number with MiB, GiB or TiB. `default_unit_mib` is the unit of a number without one; not set: it
// needs one. The result is not set when it is not a size, or less than 1 MiB.
std::optional<std::int64_t> ParseSize(std::string_view text, std::optional<std::int64_t> default_unit_mib) {
  std::int64_t unit_mib = default_unit_mib.value_or(0);
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || number < 1) return std::nullopt;
  const std::string_view unit = text.substr(static_cast<std::size_t>(end - text.data()));
  if (unit == "MiB")
    unit_mib = 1;
  else if (unit == "GiB")
    unit_mib = kMibPerGib;
  else if (unit == "TiB")
    unit_mib = kMibPerTib;
  else if (!unit.empty() || !default_unit_mib)
    return std::nullopt;
  if (number > INT64_MAX / unit_mib) return std::nullopt;
  return number * unit_mib;
}

// "a,b=c" as "a" and the rest.
std::vector<std::string> SplitAtCommas(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find(',', begin);
    parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
  }
  return parts;
}

Result<Json::Value> ParseDisk(const std::string& argument) {
  const std::vector<std::string> parts = SplitAtCommas(argument);
  Json::Value disk(Json::objectValue);
  // A copy has the size of its image unless a larger one is given.
  const bool has_size = !parts.front().starts_with("from=");
  if (has_size) {
    const auto mib = ParseSize(parts.front(), kMibPerGib);
    if (!mib || *mib % kMibPerGib != 0) {
      return Invalid(fmt::format("'{}' is not a disk size. Use whole GiB, such as 20GiB", parts.front()));
    }
    disk["size_gib"] = Json::Int64{*mib / kMibPerGib};
  }
  for (std::size_t i = has_size ? 1 : 0; i < parts.size(); ++i) {
    const std::size_t at = parts[i].find('=');
    const std::string key = parts[i].substr(0, at);
    const std::string value = at == std::string::npos ? "" : parts[i].substr(at + 1);
    if (key == "format" && (value == "raw" || value == "qcow2")) {
      disk["format"] = value;
    } else if (key == "from" && !value.empty() && IsValidUtf8(value)) {
      disk["from"] = value;
    } else if (key == "mode" && value.size() == 1 && value[0] >= '1' && value[0] <= '4') {
      disk["vdisk_mode"] = value[0] - '0';
    } else {
      return Invalid(
          fmt::format("'{}' is not a property of a disk. Use from=IMAGE, format=raw, format=qcow2, or mode=N (1 "
                      "VirtIO, 2 IDE, 3 SATA, 4 SCSI)",
                      parts[i]));
    }
  }
  return disk;
}

Result<Json::Value> ParseNet(const std::string& argument) {
  std::vector<std::string> parts = SplitAtCommas(argument);
  Json::Value nic(Json::objectValue);
  nic["network"] = parts.front() == "none" ? "" : parts.front();
  if (!IsValidUtf8(parts.front())) return Invalid("The name of a network is not valid UTF-8");
  parts.erase(parts.begin());
  if (const Status added = AddNicProperties(parts, nic); !added) return added.error();
  if (nic.isMember("network_id")) return Invalid("'net' is not a property of --net");
  return nic;
}

Result<Json::Value> ParseGrant(const std::string& argument) {
  const std::size_t at = argument.find(':');
  const std::string kind = argument.substr(0, at);
  const bool is_valid = at != std::string::npos && at + 1 < argument.size() && (kind == "user" || kind == "group");
  if (!is_valid || !IsValidUtf8(argument)) {
    return Invalid(fmt::format("Unknown user or group '{}'. Use user:NAME or group:NAME", argument));
  }
  Json::Value grant(Json::objectValue);
  grant[kind] = argument.substr(at + 1);
  return grant;
}

Status AddAll(const std::vector<std::string>& arguments, const char* name,
              Result<Json::Value> parse(const std::string&), Json::Value& parameters) {
  for (const std::string& argument : arguments) {
    Result<Json::Value> parsed = parse(argument);
    if (!parsed) return parsed.error();
    parameters[name].append(std::move(*parsed));
  }
  return {};
}

Status AddTexts(const GuestCreateOptions& options, Json::Value& parameters) {
  const std::pair<const char*, const std::string&> texts[] = {{"os", options.os},
                                                              {"iso", options.iso},
                                                              {"repository", options.repository},
                                                              {"host", options.host},
                                                              {"request_id", options.request_id}};
  for (const auto& [name, text] : texts) {
    if (!IsValidUtf8(text)) return Invalid(fmt::format("The value of '{}' is not valid UTF-8", name));
    if (!text.empty()) parameters[name] = text;
  }
  if (options.host == "none") parameters["host"] = "";
  return {};
}

}  // namespace

Result<Json::Value> CreationParametersOf(const GuestCreateOptions& options) {
  GuestSetArguments settings;
  settings.settings = options.settings;
  settings.usbs = options.usbs;
  settings.settings.push_back("name=" + options.name);
  if (!options.cpus.empty()) settings.settings.push_back("vcpu_num=" + options.cpus);
  if (!options.memory.empty()) {
    const auto mib = ParseSize(options.memory, std::nullopt);  // "2" would be 2 MiB, and mean GiB
    if (!mib) return Invalid(fmt::format("'{}' is not a size of memory. Use MiB or GiB, such as 2GiB", options.memory));
    settings.settings.push_back(fmt::format("vram_size={}", *mib));
  }
  Result<Json::Value> parameters = ParametersOf(settings);
  if (!parameters) return parameters;
  for (const Status& status : {AddTexts(options, *parameters), AddAll(options.disks, "vdisks", ParseDisk, *parameters),
                               AddAll(options.nets, "vnics", ParseNet, *parameters),
                               AddAll(options.allow, "grants", ParseGrant, *parameters)}) {
    if (!status) return status.error();
  }
  if (options.start == StartAfterwards::kYes) (*parameters)["start"] = true;
  return parameters;
}

ExitCode RunGuestCreate(const GlobalOptions& global, const GuestCreateOptions& options) {
  const Result<Json::Value> parameters = CreationParametersOf(options);
  if (!parameters) return Report(parameters.error());
  GlobalOptions patient = global;
  patient.timeout_s = static_cast<int>(ActionTimeout(global).count());
  const CallOutcome outcome = CallServer(patient, kCreateGuest, RenderJson(*parameters, JsonLayout::kOneLine));
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const std::string id = Text(Member(outcome.data, "guest_id"));
  if (id.empty()) return Report(MissingInReply("id of the guest"));
  const bool is_started = IsTrue(Member(outcome.data, "started"));
  if (global.json) {
    if (const ExitCode printed = PrintJson(outcome.data); printed != ExitCode::kOk) return printed;
  } else {
    const std::string sentence = fmt::format("Created the guest '{}' ({}).{}", Printable(options.name), Printable(id),
                                             is_started ? " It runs." : "");
    if (const ExitCode printed = PrintConfirmation(global, sentence); printed != ExitCode::kOk) return printed;
  }
  if (outcome.is_simulated && !global.quiet) PrintSimulationNote();
  if (options.start == StartAfterwards::kNo || is_started) return ExitCode::kOk;
  std::cerr << "vexa: The guest was created, but it does not run: "
            << Printable(Text(Member(outcome.data, "start_error"))) << '\n';
  return ExitCode::kFailed;
}

}  // namespace vexa::cli
