#include "host/guests/edit/edit_request.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using domain_xml::ImageFormat;

constexpr std::size_t kMaxElements = 1024;
constexpr std::size_t kMaxQuotedBytes = 128;

// The range of a numeric parameter.
struct NumberRange {
  const char* name;
  Json::Int64 least;
  Json::Int64 most;
};
constexpr NumberRange kMode{"vdisk_mode", 1, 4};
constexpr NumberRange kNicType{"vnic_type", 1, 3};
constexpr NumberRange kSize{"vdisk_size", 1, static_cast<Json::Int64>(domain_xml::kMaxDiskMib)};

bool HasControls(std::string_view text) {
  return std::ranges::any_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; });
}
bool IsPath(const std::string& text) {
  return text.size() < 4096 && text.find('\0') == std::string::npos && IsValidUtf8(text);
}

std::optional<std::uint32_t> Number(std::string_view text, int base, std::uint32_t least, std::uint32_t most) {
  std::uint32_t number = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size() || number < least || number > most) return std::nullopt;
  return number;
}

// Parses "1234:00ab" (vendor and product) or "3.14" (bus and device). Returns the canonical form of the device; "" when
// `text` has neither form.
std::string CanonicalUsbDevice(std::string_view text) {
  const std::size_t at = text.find_first_of(":.");
  if (at == std::string_view::npos || at == 0 || at > 4 || text.size() - at > 5) return "";
  const bool is_product = text[at] == ':';
  std::string device;
  for (const std::string_view part : {text.substr(0, at), text.substr(at + 1)}) {
    const auto number = is_product ? Number(part, 16, 0, 0xFFFF) : Number(part, 10, 1, 255);
    if (!number) return "";
    device += text[at] + std::to_string(*number);
  }
  return device;
}

// "aa:bb:cc:dd:ee:ff" in lower case; "" when it is not a unicast address.
std::string UnicastMac(const std::string& text) {
  if (text.size() != 17) return "";
  std::string mac;
  bool is_zero = true;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i] >= 'A' && text[i] <= 'F' ? static_cast<char>(text[i] - 'A' + 'a') : text[i];
    const bool is_digit = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
    if (i % 3 == 2 ? c != ':' : !is_digit) return "";
    is_zero = is_zero && (c == '0' || c == ':');
    mac += c;
  }
  const bool is_group = std::string_view("13579bdf").find(mac[1]) != std::string_view::npos;
  return is_group || is_zero ? "" : mac;
}

// The value of a parameter, for a message: "600", "'en us'", "a list". Texts are cut.
std::string DescribeValue(const Json::Value& value) {
  switch (value.type()) {
    case Json::nullValue:
      return "missing or null";
    case Json::stringValue:
      return QuoteForMessage(json::String(value));
    case Json::arrayValue:
      return "a list";
    case Json::objectValue:
      return "an object";
    default:
      return json::ToText(value);
  }
}

// Parses one request. Only the first error is reported.
class RequestParser {
 public:
  explicit RequestParser(const Json::Value& edit) : edit_(edit) {}

  std::variant<EditRequest, Refusal> Parse() {
    ReadMembers();
    ReadImages();
    ReadDevices();
    ReadNics();
    ReadDisks();
    ReadApply();
    if (refusal_) return std::move(*refusal_);
    return std::move(request_);
  }

 private:
  void Refuse(int code, const std::string& parameter, const std::string& what) {
    if (!refusal_) refusal_ = Refusal{code, fmt::format("The parameter '{}' {}", parameter, what)};
  }
  void RefuseType(const std::string& parameter, const std::string& wanted, const Json::Value& value) {
    Refuse(kBadEdit, parameter, fmt::format("is not {}: it is {}", wanted, DescribeValue(value)));
  }

  std::optional<Json::Int64> NumberIn(const Json::Value& value, const NumberRange& range,
                                      const std::string& parameter) {
    if (value.isInt64() && json::Int64(value) >= range.least && json::Int64(value) <= range.most)
      return json::Int64(value);
    RefuseType(parameter, fmt::format("a number from {} to {}", range.least, range.most), value);
    return std::nullopt;
  }
  std::optional<Json::Int64> NumberAt(const Json::Value& object, const NumberRange& range,
                                      const std::string& parameter) {
    const Json::Value* const value = json::FindMember(object, range.name);
    if (!value) return std::nullopt;
    return NumberIn(*value, range, parameter + "." + range.name);
  }
  std::optional<bool> FlagAt(const Json::Value& object, const char* name, const std::string& parameter) {
    const Json::Value* const value = json::FindMember(object, name);
    if (!value) return std::nullopt;
    if (value->isBool()) return json::Bool(*value);
    RefuseType(parameter + "." + name, "true or false", *value);
    return std::nullopt;
  }
  std::string IdAt(const Json::Value& object, const char* name, const std::string& parameter) {
    const Json::Value& value = json::Member(object, name);
    if (value.isString() && VexaCCC::Utils::isUUID(json::String(value))) return json::String(value);
    RefuseType(parameter + "." + name, "a UUID", value);
    return "";
  }
  std::optional<std::string> NetworkAt(const Json::Value& object, const std::string& parameter) {
    const Json::Value* const value = json::FindMember(object, "network_id");
    if (!value) return std::nullopt;
    const std::string id = value->isString() ? json::String(*value) : std::string(1, '?');
    if (id.empty() || VexaCCC::Utils::isUUID(id)) return id;
    RefuseType(parameter + ".network_id", "a UUID or empty", *value);
    return std::nullopt;
  }
  std::optional<std::string> MacAt(const Json::Value& object, const std::string& parameter) {
    const Json::Value* const value = json::FindMember(object, "mac");
    if (!value) return std::nullopt;
    std::string mac = value->isString() ? UnicastMac(json::String(*value)) : "";
    if (mac.empty())
      RefuseType(parameter + ".mac", "a MAC address of one interface, such as 02:00:5e:10:00:01", *value);
    return mac;
  }

  // Calls `read` with each element and its name for messages, such as "usbs[0]". A missing list counts as empty.
  template <class Read>
  void ForEach(const char* name, const Read& read) {
    const Json::Value* const list = json::FindMember(edit_, name);
    if (!list) return;
    if (!list->isArray() || list->size() > kMaxElements)
      return RefuseType(name, "a list of at most 1024 elements", *list);
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
      const Json::Value& element = json::Element(*list, i);
      const std::string parameter = fmt::format("{}[{}]", name, i);
      read(element, parameter);
    }
  }
  template <class Read>
  void ForEachObject(const char* name, const Read& read) {
    ForEach(name, [&](const Json::Value& element, const std::string& parameter) {
      if (!element.isObject()) return RefuseType(parameter, "an object", element);
      read(element, parameter);
    });
  }

  // False: the value is refused. A missing value is not an error.
  bool ReadScalar(const GuestSetting& setting) {
    const Json::Value* const value = json::FindMember(edit_, setting.name);
    if (!value) return true;
    if (!IsValidValue(setting, *value)) {
      RefuseType(setting.name, DescribeValidValue(setting), *value);
      return false;
    }
    // A JSON number such as 2.0 counts as a whole number.
    const bool is_number = setting.type == SettingType::kNumber;
    request_.members[setting.name] = is_number ? Json::Value(json::Int64(*value)) : *value;
    return true;
  }

  void ReadMembers() {
    // In this order, which determines the error that is reported: numbers, booleans, strings.
    for (const SettingType type : {SettingType::kNumber, SettingType::kBoolean, SettingType::kString}) {
      for (const GuestSetting& setting : kGuestSettings) {
        if (setting.type == type && !ReadScalar(setting)) return;
      }
    }
    const Json::Value* const passthru = json::FindMember(request_.members, keys::cpu_passthru);
    if (passthru && !json::Bool(*passthru) && json::Bool(json::Member(request_.members, keys::hyperv_enlighten))) {
      Refuse(kBadEdit, keys::hyperv_enlighten, "needs 'cpu_passthru'");
    }
  }

  void ReadImages() {
    if (!json::FindMember(edit_, keys::iso_images)) return;
    Json::Value images(Json::arrayValue);
    ForEach(keys::iso_images, [&](const Json::Value& element, const std::string& parameter) {
      if (!element.isString()) return RefuseType(parameter, "a string", element);
      const std::string image = json::String(element);
      const bool can_be_one = VexaCCC::Utils::isUUID(image) || image == kUnmounted || image.starts_with('/');
      if (!can_be_one || !IsPath(image) || HasControls(image)) {
        return Refuse(host_error::kNoImage, parameter,
                      "is not an image. Use an image id, an absolute path, or 'unmounted'");
      }
      images.append(element);
    });
    if (images.size() > kMaxIsoImages) Refuse(host_error::kNoImage, keys::iso_images, "has more than two images");
    request_.members[keys::iso_images] = std::move(images);
  }

  void ReadDevices() {
    if (!json::FindMember(edit_, keys::usbs)) return;
    Json::Value devices(Json::arrayValue);
    std::set<std::string> seen;
    ForEach(keys::usbs, [&](const Json::Value& element, const std::string& parameter) {
      if (!element.isString()) return RefuseType(parameter, "a string", element);
      const std::string device = json::String(element);
      const std::string canonical = CanonicalUsbDevice(device);
      const std::string shown = SanitizeForLog(device, kMaxQuotedBytes);
      if (device != kUnmounted && canonical.empty()) {
        return Refuse(host_error::kBadUsb, parameter,
                      fmt::format("is '{}'. Use the form '1234:00ab' or '3.14', or 'unmounted'", shown));
      }
      // A device cannot be in two ports of a guest.
      if (device != kUnmounted && !seen.insert(canonical).second) {
        return Refuse(host_error::kBadUsb, parameter, fmt::format("has the device '{}' again", shown));
      }
      devices.append(element);
    });
    if (devices.size() > kMaxUsbDevices) Refuse(host_error::kNoUsbPort, keys::usbs, "has more than four devices");
    while (devices.size() < kMaxUsbDevices) devices.append(kUnmounted);
    request_.members[keys::usbs] = std::move(devices);
  }

  void ReadNics() {
    ForEachObject("vnics_add", [&](const Json::Value& element, const std::string& parameter) {
      NicAddition nic;
      const auto network = NetworkAt(element, parameter);
      const auto type = NumberAt(element, kNicType, parameter);
      const auto prefer_sriov = FlagAt(element, keys::prefer_sriov, parameter);
      if (!network) RefuseType(parameter + ".network_id", "a UUID or empty", json::Member(element, "network_id"));
      nic.network_id = network.value_or("");
      nic.type = type.value_or(1);
      nic.prefer_sriov = prefer_sriov.value_or(false);
      nic.mac = MacAt(element, parameter).value_or("");
      request_.nics_add.push_back(std::move(nic));
    });
    ForEachObject("vnics_del", [&](const Json::Value& element, const std::string& parameter) {
      request_.nics_del.push_back(IdAt(element, "vnic_id", parameter));
    });
    ForEachObject("vnics_edit", [&](const Json::Value& element, const std::string& parameter) {
      NicChange nic;
      nic.id = IdAt(element, "vnic_id", parameter);
      nic.network_id = NetworkAt(element, parameter);
      nic.mac = MacAt(element, parameter);
      nic.type = NumberAt(element, kNicType, parameter);
      nic.prefer_sriov = FlagAt(element, keys::prefer_sriov, parameter);
      request_.nics_edit.push_back(std::move(nic));
    });
  }

  std::uint64_t SizeAt(const Json::Value& object, const std::string& parameter) {
    return static_cast<std::uint64_t>(
        NumberIn(json::Member(object, kSize.name), kSize, parameter + "." + kSize.name).value_or(0));
  }
  ImageFormat FormatAt(const Json::Value& object, const std::string& parameter) {
    const Json::Value* const value = json::FindMember(object, keys::format);
    if (!value) return ImageFormat::kQcow2;
    const std::string format = value->isString() ? json::String(*value) : "";
    if (format != "raw" && format != "qcow2") RefuseType(parameter + ".format", "'raw' or 'qcow2'", *value);
    return format == "raw" ? ImageFormat::kRaw : ImageFormat::kQcow2;
  }

  void ReadDisks() {
    ForEachObject("vdisks_add", [&](const Json::Value& element, const std::string& parameter) {
      DiskAddition disk;
      disk.size_mib = SizeAt(element, parameter);
      disk.mode = NumberAt(element, kMode, parameter).value_or(1);
      disk.unmap = FlagAt(element, keys::unmap, parameter).value_or(false);
      disk.format = FormatAt(element, parameter);
      request_.disks_add.push_back(disk);
    });
    ForEachObject("vdisks_del", [&](const Json::Value& element, const std::string& parameter) {
      request_.disks_del.push_back(IdAt(element, "vdisk_id", parameter));
    });
    ForEachObject("vdisks_edit", [&](const Json::Value& element, const std::string& parameter) {
      DiskChange disk;
      disk.id = IdAt(element, "vdisk_id", parameter);
      disk.size_mib = SizeAt(element, parameter);
      disk.mode = NumberAt(element, kMode, parameter);
      disk.unmap = FlagAt(element, keys::unmap, parameter);
      request_.disks_edit.push_back(std::move(disk));
    });
    ForEachObject("vdisks_order", [&](const Json::Value& element, const std::string& parameter) {
      request_.disks_order.push_back(IdAt(element, "vdisk_id", parameter));
    });
  }

  void ReadApply() {
    const Json::Value* const value = json::FindMember(edit_, kApply);
    if (!value) return;
    const std::string apply = value->isString() ? json::String(*value) : "";
    if (apply != kApplyNow && apply != kApplyAtNextStart) RefuseType(kApply, "'now' or 'next_start'", *value);
    request_.must_apply_now = apply == kApplyNow;
  }

  const Json::Value& edit_;
  EditRequest request_;
  std::optional<Refusal> refusal_;
};

}  // namespace

std::variant<EditRequest, Refusal> ParseEdit(const Json::Value& edit) { return RequestParser(edit).Parse(); }

std::string QuoteForMessage(const std::string& text) { return "'" + SanitizeForLog(text, kMaxQuotedBytes) + "'"; }

}  // namespace vexa::guests
