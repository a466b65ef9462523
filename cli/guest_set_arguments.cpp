#include "cli/guest_set_arguments.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <variant>

#include "cli/listing.h"
#include "cli/parse_failure.h"
#include "cli/reply.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/nearest_name.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/edit/edit_request.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::int64_t kMibPerGib = 1024;
constexpr std::int64_t kLargestDiskGib = static_cast<std::int64_t>(domain_xml::kMaxDiskMib) / kMibPerGib;

Error Invalid(std::string text) { return Error(ErrorCode::kInvalid, std::move(text)); }
Error NotANumber(const std::string& text, const std::string& name) {
  return Invalid(fmt::format("'{}' is not a number, which is required for '{}'", text, name));
}
Error NotYesOrNo(const std::string& text, const std::string& name) {
  return Invalid(fmt::format("'{}' is neither true nor false, one of which is required for '{}'", text, name));
}
Error NamedTwice(const std::string& what, const std::string& id) {
  return Invalid(fmt::format("The {} '{}' is named twice", what, id));
}

std::optional<std::int64_t> ParseNumber(std::string_view text) {
  std::int64_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (text.empty() || error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<bool> ParseYesNo(std::string_view text) {
  if (text == "true" || text == "yes") return true;
  if (text == "false" || text == "no") return false;
  return std::nullopt;
}

// "a=b=c" is split into "a" and "b=c". Not set: there is no "=".
std::optional<std::pair<std::string, std::string>> SplitPair(const std::string& argument) {
  const std::size_t at = argument.find('=');
  if (at == std::string::npos) return std::nullopt;
  return std::pair(argument.substr(0, at), argument.substr(at + 1));
}

std::vector<std::string> SplitList(const std::string& text) {
  std::vector<std::string> parts;
  std::size_t begin = 0;
  for (std::size_t end = 0; end != std::string::npos; begin = end + 1) {
    end = text.find(',', begin);
    parts.push_back(text.substr(begin, end == std::string::npos ? end : end - begin));
  }
  return parts;
}

Result<Json::Value> ParseValue(const GuestSetting& setting, const std::string& text) {
  const std::string name = setting.name;
  switch (setting.type) {
    case SettingType::kString:
      if (!IsValidUtf8(text)) return Invalid(fmt::format("The value of '{}' is not valid UTF-8", name));
      return Json::Value(text);
    case SettingType::kNumber:
      if (const auto number = ParseNumber(text)) return Json::Value(Json::Int64{*number});
      return NotANumber(text, name);
    case SettingType::kBoolean:
      if (const auto yes = ParseYesNo(text)) return Json::Value(*yes);
      return NotYesOrNo(text, name);
    case SettingType::kId:
    case SettingType::kList:
      break;
  }
  return Invalid(name);
}

Status AddSettings(const std::vector<std::string>& arguments, Json::Value& parameters) {
  for (const std::string& argument : arguments) {
    const auto pair = SplitPair(argument);
    if (!pair) return Invalid(fmt::format("'{}' is not a setting. Use NAME=VALUE", argument));
    const GuestSetting* const setting = FindSetting(pair->first);
    if (!setting) return UnknownSetting(pair->first);
    if (parameters.isMember(setting->name)) return Invalid(fmt::format("The setting '{}' is given twice", pair->first));
    Result<Json::Value> value = ParseValue(*setting, pair->second);
    if (!value) return value.error();
    parameters[setting->name] = std::move(*value);
  }
  return {};
}

Result<Json::Value> ParseDiskSize(const std::string& text) {
  const auto size = ParseNumber(text);
  if (size && *size >= 1 && *size <= kLargestDiskGib) return Json::Value(Json::Int64{*size});
  return Invalid(fmt::format("'{}' is not a disk size. Use GiB, 1 to {}", text, kLargestDiskGib));
}

Status CheckId(const std::string& text, const char* what) {
  if (HasUuidForm(text)) return {};
  return Invalid(fmt::format("'{}' is not the id of a {} (a UUID); 'vexa guest get' shows them", text, what));
}

// [{"<member>": "<id>"}, …], without duplicates.
Status AddIds(const std::vector<std::string>& ids, const char* parameter, const char* member, const char* what,
              Json::Value& parameters) {
  std::set<std::string> seen;
  for (const std::string& id : ids) {
    if (Status checked = CheckId(id, what); !checked) return checked;
    if (!seen.insert(id).second) return NamedTwice(what, id);
    Json::Value element(Json::objectValue);
    element[member] = id;
    parameters[parameter].append(std::move(element));
  }
  return {};
}

Status AddDisks(const GuestSetArguments& arguments, Json::Value& parameters) {
  for (const std::string& text : arguments.add_disks) {
    Result<Json::Value> size = ParseDiskSize(text);
    if (!size) return size.error();
    Json::Value disk(Json::objectValue);
    disk["vdisk_size"] = std::move(*size);
    parameters["vdisks_add"].append(std::move(disk));
  }
  if (Status added = AddIds(arguments.del_disks, "vdisks_del", "vdisk_id", "disk", parameters); !added) return added;
  std::set<std::string> grown;
  for (const std::string& argument : arguments.grow_disks) {
    const auto pair = SplitPair(argument);
    if (!pair) return Invalid(fmt::format("'{}' is not a new disk size. Use ID=GIB", argument));
    if (Status checked = CheckId(pair->first, "disk"); !checked) return checked;
    if (!grown.insert(pair->first).second) return NamedTwice("disk", pair->first);
    Result<Json::Value> size = ParseDiskSize(pair->second);
    if (!size) return size.error();
    Json::Value disk(Json::objectValue);
    disk["vdisk_id"] = pair->first;
    disk["vdisk_size"] = std::move(*size);
    parameters["vdisks_edit"].append(std::move(disk));
  }
  if (arguments.order_disks.empty()) return {};
  return AddIds(SplitList(arguments.order_disks), "vdisks_order", "vdisk_id", "disk", parameters);
}

// Reads "net=…", "type=…", "mac=…" and "sriov=…" into `nic`.
Status ParseNicProperty(const std::string& argument, Json::Value& nic) {
  const auto pair = SplitPair(argument);
  const auto& [key, value] = pair.value_or(std::pair(argument, std::string()));
  static constexpr std::pair<const char*, const char*> kMembers[] = {
      {"net", "network_id"}, {"type", "vnic_type"}, {"mac", "mac"}, {"sriov", "prefer_sriov"}};
  const auto* const row =
      std::ranges::find_if(kMembers, [&key = key](const auto& member) { return key == member.first; });
  if (!pair || row == std::end(kMembers)) {
    static constexpr std::string_view kKeys[] = {"net", "type", "mac", "sriov"};
    const std::string guess = pair ? DidYouMean(key, kKeys) : "";
    return Invalid(
        fmt::format("'{}' is not a property of an interface{} Use net=NETWORK, type=N, mac=ADDRESS or sriov=true",
                    argument, guess.empty() ? "." : guess));
  }
  if (nic.isMember(row->second)) return Invalid(fmt::format("'{}' is given twice for one interface", key));
  Json::Value& member = nic[row->second];
  if (key == "net") {
    const bool is_none = value.empty() || value == "none";
    if (!IsValidUtf8(value)) return Invalid("The name of a network is not valid UTF-8");
    member = is_none ? "" : value;
  } else if (key == "mac") {
    if (!IsValidUtf8(value)) return Invalid("A MAC address is not valid UTF-8");
    member = value;
  } else if (key == "type") {
    const auto type = ParseNumber(value);
    if (!type) return NotANumber(value, "type");
    member = Json::Int64{*type};
  } else {
    const auto yes = ParseYesNo(value);
    if (!yes) return NotYesOrNo(value, "sriov");
    member = *yes;
  }
  return {};
}

Status AddNics(const GuestSetArguments& arguments, Json::Value& parameters) {
  for (const std::string& argument : arguments.add_nics) {
    Json::Value nic(Json::objectValue);
    for (const std::string& part : SplitList(argument)) {
      if (Status added = ParseNicProperty(part, nic); !added) return added;
    }
    if (!nic.isMember("network_id"))
      return Invalid(fmt::format("'{}' does not name a network. Use net=NETWORK or net=none", argument));
    if (!nic.isMember("vnic_type")) nic["vnic_type"] = 1;
    if (!nic.isMember("prefer_sriov")) nic["prefer_sriov"] = false;
    parameters["vnics_add"].append(std::move(nic));
  }
  if (Status added = AddIds(arguments.del_nics, "vnics_del", "vnic_id", "network interface", parameters); !added) {
    return added;
  }
  std::set<std::string> edited;
  for (const std::string& argument : arguments.edit_nics) {
    const std::vector<std::string> parts = SplitList(argument);
    if (Status checked = CheckId(parts.front(), "network interface"); !checked) return checked;
    if (!edited.insert(parts.front()).second) return NamedTwice("network interface", parts.front());
    if (parts.size() == 1) return Invalid(fmt::format("No change of the network interface '{}' is named", argument));
    Json::Value nic(Json::objectValue);
    for (std::size_t i = 1; i < parts.size(); ++i) {
      if (Status added = ParseNicProperty(parts[i], nic); !added) return added;
    }
    nic["vnic_id"] = parts.front();
    parameters["vnics_edit"].append(std::move(nic));
  }
  return {};
}

// The same without the names of networks and images, which only the server can look up.
Json::Value WithoutNames(Json::Value parameters) {
  if (parameters.isMember("iso_images")) {
    for (Json::Value& image : parameters["iso_images"]) {
      const std::string name = Text(image);
      if (!name.starts_with('/') && !HasUuidForm(name)) image = kEmptyDrive;
    }
  }
  for (const char* list : {"vnics_add", "vnics_edit"}) {
    if (!parameters.isMember(list)) continue;
    for (Json::Value& nic : parameters[list]) {
      if (nic.isMember("network_id") && !HasUuidForm(json::StringMember(nic, "network_id"))) nic["network_id"] = "";
    }
  }
  return parameters;
}

// The contents of drives or ports.
Status AddContents(const std::vector<std::string>& arguments, const char* parameter, Json::Value& parameters) {
  for (const std::string& argument : arguments) {
    if (!IsValidUtf8(argument)) return Invalid(fmt::format("A value for '{}' is not valid UTF-8", parameter));
    parameters[parameter].append(argument.empty() || argument == "none" ? std::string(kEmptyDrive) : argument);
  }
  return {};
}

// "; did you mean 'iso'?" about the first setting whose value is similar to one that it can have.
std::string NearestValue(const Json::Value& parameters) {
  for (const GuestSetting* setting : Settings()) {
    const std::string value = Text(Member(parameters, setting->name));
    if (std::ranges::find(setting->allowed_values, value) != setting->allowed_values.end()) continue;
    if (std::string guess = DidYouMean(value, setting->allowed_values); !guess.empty()) return guess;
  }
  return "";
}

}  // namespace

std::span<const GuestSetting* const> Settings() {
  static const auto settings = [] {
    std::vector<const GuestSetting*> scalars;
    std::ranges::copy_if(GuestSettingsByTopic(), std::back_inserter(scalars), &GuestSetting::IsScalar);
    return scalars;
  }();
  return settings;
}

const GuestSetting* FindSetting(const std::string& name) {
  const GuestSetting* const setting = FindGuestSetting(name);
  return setting && setting->IsScalar() ? setting : nullptr;
}

Error UnknownSetting(const std::string& name) {
  std::vector<std::string_view> names;
  for (const GuestSetting* setting : Settings()) names.push_back(setting->name);
  const std::string all = fmt::format("{}", fmt::join(names, ", "));
  const std::string_view nearest = NearestName(name, names);
  if (nearest.empty()) return Invalid(fmt::format("There is no setting '{}'. The settings are {}", name, all));
  return Invalid(fmt::format("There is no setting '{}'; did you mean '{}'? The settings are {}", name, nearest, all));
}

Result<Json::Value> ParametersOf(const GuestSetArguments& arguments) {
  Json::Value parameters(Json::objectValue);
  for (const Status& status :
       {AddSettings(arguments.settings, parameters), AddDisks(arguments, parameters), AddNics(arguments, parameters),
        AddContents(arguments.isos, "iso_images", parameters), AddContents(arguments.usbs, "usbs", parameters)}) {
    if (!status) return status.error();
  }
  if (const Status checked = CheckParameters(WithoutNames(parameters)); !checked) {
    return Invalid(checked.error().message() + NearestValue(parameters));
  }
  return parameters;
}

Status AddNicProperties(const std::vector<std::string>& properties, Json::Value& nic) {
  for (const std::string& property : properties) {
    if (Status added = ParseNicProperty(property, nic); !added) return added;
  }
  return {};
}

Status CheckParameters(const Json::Value& parameters) {
  Json::Value edit = parameters;
  for (const char* name : {"vdisks_add", "vdisks_edit"}) {
    if (!edit.isMember(name)) continue;
    for (Json::Value& disk : edit[name]) {
      disk["vdisk_size"] = Json::Int64{json::Int64(json::Member(disk, "vdisk_size")) * kMibPerGib};
    }
  }
  const auto parsed = guests::ParseEdit(edit);
  if (const auto* const refusal = std::get_if<Refusal>(&parsed)) return Invalid(refusal->reason);
  return {};
}

}  // namespace vexa::cli
