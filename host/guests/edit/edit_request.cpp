#include "host/guests/edit/edit_request.h"

#include <algorithm>
#include <charconv>
#include <set>
#include <string_view>

#include "host/base/guest_settings.h"
#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using hypervisor::ImageFormat;

constexpr std::size_t kMaxListed = 1024;
constexpr std::size_t kMaxShown = 128;

struct NumberRow {
  const char* name;
  Json::Int64 least;
  Json::Int64 most;
};
constexpr NumberRow kMode{"vdisk_mode", 1, 4};
constexpr NumberRow kNicType{"vnic_type", 1, 3};
constexpr NumberRow kSize{"vdisk_size", 1, static_cast<Json::Int64>(hypervisor::kMaxDiskMib)};

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

// "1234:00ab" is a vendor and a product, "3.14" a bus and a device. Returns the same text for every way to write a
// device; "" when it is not a device.
std::string UsbDevice(std::string_view text) {
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

// Reads one request; the first error ends it.
class Reader {
 public:
  explicit Reader(const Json::Value& edit) : edit_(edit) {}

  std::variant<EditRequest, Refusal> Read() {
    ReadMembers();
    ReadImages();
    ReadDevices();
    ReadNics();
    ReadDisks();
    if (refusal_) return std::move(*refusal_);
    return std::move(request_);
  }

 private:
  void Refuse(int code, const std::string& where, const std::string& what) {
    if (!refusal_) refusal_ = Refusal{code, "The parameter '" + where + "' " + what};
  }
  void RefuseType(const std::string& where, const std::string& wanted) { Refuse(kBadEdit, where, "is not " + wanted); }

  std::optional<Json::Int64> NumberIn(const Json::Value& value, const NumberRow& row, const std::string& where) {
    if (value.isInt64() && json::Int64(value) >= row.least && json::Int64(value) <= row.most) return json::Int64(value);
    RefuseType(where, "a number from " + std::to_string(row.least) + " to " + std::to_string(row.most));
    return std::nullopt;
  }
  std::optional<Json::Int64> NumberAt(const Json::Value& object, const NumberRow& row, const std::string& where) {
    const Json::Value* const value = json::FindMember(object, row.name);
    if (!value) return std::nullopt;
    return NumberIn(*value, row, where + "." + row.name);
  }
  std::optional<bool> FlagAt(const Json::Value& object, const char* name, const std::string& where) {
    const Json::Value* const value = json::FindMember(object, name);
    if (!value) return std::nullopt;
    if (value->isBool()) return json::Bool(*value);
    RefuseType(where + "." + name, "true or false");
    return std::nullopt;
  }
  std::string IdAt(const Json::Value& object, const char* name, const std::string& where) {
    const Json::Value& value = json::Member(object, name);
    if (value.isString() && VexaCCC::Utils::isUUID(json::String(value))) return json::String(value);
    RefuseType(where + "." + name, "a UUID");
    return "";
  }
  std::optional<std::string> NetworkAt(const Json::Value& object, const std::string& where) {
    const Json::Value* const value = json::FindMember(object, "network_id");
    if (!value) return std::nullopt;
    const std::string id = value->isString() ? json::String(*value) : std::string(1, '?');
    if (id.empty() || VexaCCC::Utils::isUUID(id)) return id;
    RefuseType(where + ".network_id", "a UUID or empty");
    return std::nullopt;
  }
  std::optional<std::string> MacAt(const Json::Value& object, const std::string& where) {
    const Json::Value* const value = json::FindMember(object, "mac");
    if (!value) return std::nullopt;
    std::string mac = value->isString() ? UnicastMac(json::String(*value)) : "";
    if (mac.empty()) RefuseType(where + ".mac", "a MAC address of one interface, such as 02:00:5e:10:00:01");
    return mac;
  }

  // Calls `read` with each element and a name for it. A missing list counts as empty.
  template <class Read>
  void ForEach(const char* name, const Read& read) {
    const Json::Value* const list = json::FindMember(edit_, name);
    if (!list) return;
    if (!list->isArray() || list->size() > kMaxListed) return RefuseType(name, "a list");
    for (Json::ArrayIndex i = 0; i < list->size(); ++i) {
      const Json::Value& element = json::Element(*list, i);
      const std::string where = name + ("[" + std::to_string(i) + "]");
      read(element, where);
    }
  }
  template <class Read>
  void ForEachObject(const char* name, const Read& read) {
    ForEach(name, [&](const Json::Value& element, const std::string& where) {
      if (!element.isObject()) return RefuseType(where, "an object");
      read(element, where);
    });
  }

  // Returns false when the value is refused. A missing one is not.
  bool ReadScalar(const GuestSetting& setting) {
    const Json::Value* const value = json::FindMember(edit_, setting.name);
    if (!value) return true;
    if (!IsValidValue(setting, *value)) {
      RefuseType(setting.name, WantedValue(setting));
      return false;
    }
    // A whole number may have arrived as 2.0.
    const bool is_number = setting.type == SettingType::kNumber;
    request_.members[setting.name] = is_number ? Json::Value(json::Int64(*value)) : *value;
    return true;
  }

  void ReadMembers() {
    // The first wrong value is reported: a number, then a truth value, then a text.
    for (const SettingType type : {SettingType::kNumber, SettingType::kYesNo, SettingType::kText}) {
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
    ForEach(keys::iso_images, [&](const Json::Value& element, const std::string& where) {
      if (!element.isString()) return RefuseType(where, "a text");
      const std::string image = json::String(element);
      const bool can_be_one = VexaCCC::Utils::isUUID(image) || image == kUnmounted || image.starts_with('/');
      if (!can_be_one || !IsPath(image) || HasControls(image)) {
        return Refuse(kNoImage, where, "is no image: give the id of one, an absolute path, or 'unmounted'");
      }
      images.append(element);
    });
    if (images.size() > kMaxIsoImages) Refuse(kNoImage, keys::iso_images, "has more than two images");
    request_.members[keys::iso_images] = std::move(images);
  }

  void ReadDevices() {
    if (!json::FindMember(edit_, keys::usbs)) return;
    Json::Value devices(Json::arrayValue);
    std::set<std::string> named;
    ForEach(keys::usbs, [&](const Json::Value& element, const std::string& where) {
      if (!element.isString()) return RefuseType(where, "a text");
      const std::string device = json::String(element);
      const std::string plain = UsbDevice(device);
      const std::string shown = cluster::LogText(device, kMaxShown);
      if (device != kUnmounted && plain.empty()) {
        return Refuse(kBadUsb, where, "is '" + shown + "': give '1234:00ab', '3.14' or 'unmounted'");
      }
      // A machine cannot have it in two ports.
      if (device != kUnmounted && !named.insert(plain).second) {
        return Refuse(kBadUsb, where, "names the device '" + shown + "' once more");
      }
      devices.append(element);
    });
    if (devices.size() > kMaxUsbDevices) Refuse(kNoUsbPort, keys::usbs, "has more than four devices");
    while (devices.size() < kMaxUsbDevices) devices.append(kUnmounted);
    request_.members[keys::usbs] = std::move(devices);
  }

  void ReadNics() {
    ForEachObject("vnics_add", [&](const Json::Value& element, const std::string& where) {
      NicAddition nic;
      const auto network = NetworkAt(element, where);
      const auto type = NumberAt(element, kNicType, where);
      const auto prefer_sriov = FlagAt(element, keys::prefer_sriov, where);
      if (!network) RefuseType(where + ".network_id", "a UUID or empty");
      nic.network_id = network.value_or("");
      nic.type = type.value_or(1);
      nic.prefer_sriov = prefer_sriov.value_or(false);
      nic.mac = MacAt(element, where).value_or("");
      request_.nics_add.push_back(std::move(nic));
    });
    ForEachObject("vnics_del", [&](const Json::Value& element, const std::string& where) {
      request_.nics_del.push_back(IdAt(element, "vnic_id", where));
    });
    ForEachObject("vnics_edit", [&](const Json::Value& element, const std::string& where) {
      NicChange nic;
      nic.id = IdAt(element, "vnic_id", where);
      nic.network_id = NetworkAt(element, where);
      nic.mac = MacAt(element, where);
      nic.type = NumberAt(element, kNicType, where);
      nic.prefer_sriov = FlagAt(element, keys::prefer_sriov, where);
      request_.nics_edit.push_back(std::move(nic));
    });
  }

  std::uint64_t SizeAt(const Json::Value& object, const std::string& where) {
    return static_cast<std::uint64_t>(
        NumberIn(json::Member(object, kSize.name), kSize, where + "." + kSize.name).value_or(0));
  }
  ImageFormat FormatAt(const Json::Value& object, const std::string& where) {
    const Json::Value* const value = json::FindMember(object, keys::format);
    if (!value) return ImageFormat::kQcow2;
    const std::string format = value->isString() ? json::String(*value) : "";
    if (format != "raw" && format != "qcow2") RefuseType(where + ".format", "'raw' or 'qcow2'");
    return format == "raw" ? ImageFormat::kRaw : ImageFormat::kQcow2;
  }

  void ReadDisks() {
    ForEachObject("vdisks_add", [&](const Json::Value& element, const std::string& where) {
      DiskAddition disk;
      disk.size_mib = SizeAt(element, where);
      disk.mode = NumberAt(element, kMode, where).value_or(1);
      disk.unmap = FlagAt(element, keys::unmap, where).value_or(false);
      disk.format = FormatAt(element, where);
      request_.disks_add.push_back(disk);
    });
    ForEachObject("vdisks_del", [&](const Json::Value& element, const std::string& where) {
      request_.disks_del.push_back(IdAt(element, "vdisk_id", where));
    });
    ForEachObject("vdisks_edit", [&](const Json::Value& element, const std::string& where) {
      DiskChange disk;
      disk.id = IdAt(element, "vdisk_id", where);
      disk.size_mib = SizeAt(element, where);
      disk.mode = NumberAt(element, kMode, where);
      disk.unmap = FlagAt(element, keys::unmap, where);
      request_.disks_edit.push_back(std::move(disk));
    });
    ForEachObject("vdisks_order", [&](const Json::Value& element, const std::string& where) {
      request_.disks_order.push_back(IdAt(element, "vdisk_id", where));
    });
  }

  const Json::Value& edit_;
  EditRequest request_;
  std::optional<Refusal> refusal_;
};

}  // namespace

std::variant<EditRequest, Refusal> ParseEdit(const Json::Value& edit) { return Reader(edit).Read(); }

std::string Shown(const std::string& text) { return "'" + cluster::LogText(text, kMaxShown) + "'"; }

}  // namespace vexa::guests
