#include "cli/guest_words.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <optional>
#include <set>
#include <string_view>
#include <utility>
#include <variant>

#include "cli/listing.h"
#include "cli/reply.h"
#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/uuid.h"
#include "host/domain_xml/domain_xml.h"
#include "host/guests/edit/edit_request.h"

namespace vexa::cli {
namespace {

namespace json = VexaVirtualization::json;

constexpr std::int64_t kMibPerGib = 1024;
constexpr std::int64_t kLargestDiskGib = static_cast<std::int64_t>(hypervisor::kMaxDiskMib) / kMibPerGib;
constexpr char kUnmounted[] = "unmounted";

Error Bad(std::string text) { return Error(ErrorCode::kInvalid, std::move(text)); }

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
std::optional<std::pair<std::string, std::string>> SplitPair(const std::string& word) {
  const std::size_t at = word.find('=');
  if (at == std::string::npos) return std::nullopt;
  return std::pair(word.substr(0, at), word.substr(at + 1));
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

// The edit distance of two words.
std::size_t Distance(std::string_view a, std::string_view b) {
  std::vector<std::size_t> row(b.size() + 1);
  for (std::size_t j = 0; j < row.size(); ++j) row[j] = j;
  for (std::size_t i = 1; i <= a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i);
    for (std::size_t j = 1; j < row.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i - 1] == b[j - 1] ? 0 : 1);
      diagonal = std::exchange(row[j], std::min({row[j] + 1, row[j - 1] + 1, replaced}));
    }
  }
  return row.back();
}

// The setting that was probably intended; null when none is close.
const GuestSetting* Nearest(const std::string& name) {
  constexpr std::size_t kLongest = 32;
  if (name.size() > kLongest) return nullptr;
  const auto distance = [&](const GuestSetting* setting) { return Distance(name, setting->name); };
  const GuestSetting* const nearest = *std::ranges::min_element(Settings(), {}, distance);
  const std::size_t most = std::max<std::size_t>(1, std::string_view(nearest->name).size() / 2);
  return distance(nearest) <= most ? nearest : nullptr;
}

Result<Json::Value> ValueOf(const GuestSetting& setting, const std::string& text) {
  const std::string name = setting.name;
  switch (setting.type) {
    case SettingType::kText:
      if (!IsValidUtf8(text)) return Bad("The value of '" + name + "' is not valid UTF-8");
      return Json::Value(text);
    case SettingType::kNumber:
      if (const auto number = ParseNumber(text)) return Json::Value(Json::Int64{*number});
      return Bad("'" + text + "' is no number, as '" + name + "' needs it");
    case SettingType::kYesNo:
      if (const auto yes = ParseYesNo(text)) return Json::Value(*yes);
      return Bad("'" + text + "' is neither true nor false, as '" + name + "' needs it");
    case SettingType::kId:
    case SettingType::kList:
      break;
  }
  return Bad(name);
}

Status AddSettings(const std::vector<std::string>& words, Json::Value& parameters) {
  for (const std::string& word : words) {
    const auto pair = SplitPair(word);
    if (!pair) return Bad("'" + word + "' is no setting: give NAME=VALUE");
    const GuestSetting* const setting = FindSetting(pair->first);
    if (!setting) return UnknownSetting(pair->first);
    if (parameters.isMember(setting->name)) return Bad("The setting '" + pair->first + "' is given twice");
    Result<Json::Value> value = ValueOf(*setting, pair->second);
    if (!value) return value.error();
    parameters[setting->name] = std::move(*value);
  }
  return {};
}

Result<Json::Value> SizeOf(const std::string& text) {
  const auto size = ParseNumber(text);
  if (size && *size >= 1 && *size <= kLargestDiskGib) return Json::Value(Json::Int64{*size});
  return Bad("'" + text + "' is no size of a disk: give GiB, 1 to " + std::to_string(kLargestDiskGib));
}

Status CheckId(const std::string& text, const char* what) {
  if (IsUuidForm(text)) return {};
  return Bad("'" + text + "' is no id of a " + what + " (a UUID); 'vexa guest get' shows them");
}

// [{"<member>": "<id>"}, …], without duplicates.
Status AddIds(const std::vector<std::string>& ids, const char* parameter, const char* member, const char* what,
              Json::Value& parameters) {
  std::set<std::string> seen;
  for (const std::string& id : ids) {
    if (Status checked = CheckId(id, what); !checked) return checked;
    if (!seen.insert(id).second) return Bad(std::string("The ") + what + " '" + id + "' is named twice");
    Json::Value element(Json::objectValue);
    element[member] = id;
    parameters[parameter].append(std::move(element));
  }
  return {};
}

Status AddDisks(const GuestWords& words, Json::Value& parameters) {
  for (const std::string& text : words.add_disks) {
    Result<Json::Value> size = SizeOf(text);
    if (!size) return size.error();
    Json::Value disk(Json::objectValue);
    disk["vdisk_size"] = std::move(*size);
    parameters["vdisks_add"].append(std::move(disk));
  }
  if (Status added = AddIds(words.del_disks, "vdisks_del", "vdisk_id", "disk", parameters); !added) return added;
  std::set<std::string> grown;
  for (const std::string& word : words.grow_disks) {
    const auto pair = SplitPair(word);
    if (!pair) return Bad("'" + word + "' is no new size of a disk: give ID=GIB");
    if (Status checked = CheckId(pair->first, "disk"); !checked) return checked;
    if (!grown.insert(pair->first).second) return Bad("The disk '" + pair->first + "' is named twice");
    Result<Json::Value> size = SizeOf(pair->second);
    if (!size) return size.error();
    Json::Value disk(Json::objectValue);
    disk["vdisk_id"] = pair->first;
    disk["vdisk_size"] = std::move(*size);
    parameters["vdisks_edit"].append(std::move(disk));
  }
  if (words.order_disks.empty()) return {};
  return AddIds(SplitList(words.order_disks), "vdisks_order", "vdisk_id", "disk", parameters);
}

// Reads "net=…", "type=…", "mac=…" and "sriov=…" into `nic`.
Status AddToNic(const std::string& word, Json::Value& nic) {
  const auto pair = SplitPair(word);
  const auto& [key, value] = pair.value_or(std::pair(word, std::string()));
  static constexpr std::pair<const char*, const char*> kMembers[] = {
      {"net", "network_id"}, {"type", "vnic_type"}, {"mac", "mac"}, {"sriov", "prefer_sriov"}};
  const auto* const row =
      std::ranges::find_if(kMembers, [&key = key](const auto& member) { return key == member.first; });
  if (!pair || row == std::end(kMembers)) {
    return Bad("'" + word + "' is nothing of an interface: give net=ID, type=N, mac=ADDRESS or sriov=true");
  }
  if (nic.isMember(row->second)) return Bad("'" + key + "' is given twice for one interface");
  Json::Value& member = nic[row->second];
  if (key == "net") {
    const bool is_none = value.empty() || value == "none";
    if (!is_none && !IsUuidForm(value)) return Bad("'" + value + "' is no id of a network (a UUID), nor 'none'");
    member = is_none ? "" : value;
  } else if (key == "mac") {
    if (!IsValidUtf8(value)) return Bad("A MAC address is not valid UTF-8");
    member = value;
  } else if (key == "type") {
    const auto type = ParseNumber(value);
    if (!type) return Bad("'" + value + "' is no number, as 'type' needs it");
    member = Json::Int64{*type};
  } else {
    const auto yes = ParseYesNo(value);
    if (!yes) return Bad("'" + value + "' is neither true nor false, as 'sriov' needs it");
    member = *yes;
  }
  return {};
}

Status AddNics(const GuestWords& words, Json::Value& parameters) {
  for (const std::string& word : words.add_nics) {
    Json::Value nic(Json::objectValue);
    for (const std::string& part : SplitList(word)) {
      if (Status added = AddToNic(part, nic); !added) return added;
    }
    if (!nic.isMember("network_id")) return Bad("'" + word + "' names no network: give net=ID, or net=none");
    if (!nic.isMember("vnic_type")) nic["vnic_type"] = 1;
    if (!nic.isMember("prefer_sriov")) nic["prefer_sriov"] = false;
    parameters["vnics_add"].append(std::move(nic));
  }
  if (Status added = AddIds(words.del_nics, "vnics_del", "vnic_id", "network interface", parameters); !added) {
    return added;
  }
  std::set<std::string> edited;
  for (const std::string& word : words.edit_nics) {
    const std::vector<std::string> parts = SplitList(word);
    if (Status checked = CheckId(parts.front(), "network interface"); !checked) return checked;
    if (!edited.insert(parts.front()).second)
      return Bad("The network interface '" + parts.front() + "' is named twice");
    if (parts.size() == 1) return Bad("Nothing is to change of the network interface '" + word + "'");
    Json::Value nic(Json::objectValue);
    for (std::size_t i = 1; i < parts.size(); ++i) {
      if (Status added = AddToNic(parts[i], nic); !added) return added;
    }
    nic["vnic_id"] = parts.front();
    parameters["vnics_edit"].append(std::move(nic));
  }
  return {};
}

// The contents of drives or ports.
Status AddContents(const std::vector<std::string>& words, const char* parameter, Json::Value& parameters) {
  for (const std::string& word : words) {
    if (!IsValidUtf8(word)) return Bad(std::string("A text for '") + parameter + "' is not valid UTF-8");
    parameters[parameter].append(word.empty() || word == "none" ? std::string(kUnmounted) : word);
  }
  return {};
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
  std::string text = "There is no setting '" + name + "'";
  if (const GuestSetting* const nearest = Nearest(name)) text += std::string("; did you mean '") + nearest->name + "'?";
  text += text.back() == '?' ? " The settings are " : ". The settings are ";
  for (const GuestSetting* setting : Settings()) {
    text += (setting == Settings().front() ? "" : ", ") + std::string(setting->name);
  }
  return Bad(text);
}

Result<Json::Value> ParametersOf(const GuestWords& words) {
  Json::Value parameters(Json::objectValue);
  for (const Status& status :
       {AddSettings(words.settings, parameters), AddDisks(words, parameters), AddNics(words, parameters),
        AddContents(words.isos, "iso_images", parameters), AddContents(words.usbs, "usbs", parameters)}) {
    if (!status) return status.error();
  }
  if (const Status checked = CheckParameters(parameters); !checked) return checked.error();
  return parameters;
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
  if (const auto* const refusal = std::get_if<guests::Refusal>(&parsed)) return Bad(refusal->reason);
  return {};
}

}  // namespace vexa::cli
