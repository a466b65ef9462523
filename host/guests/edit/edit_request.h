// The parameters of an edit, parsed and checked as far as that is possible without records.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "host/base/guest_setting.h"
#include "host/base/refusal.h"
#include "host/domain_xml/domain_parse.h"

namespace vexa::guests {

inline constexpr char kUnmounted[] = "unmounted";  // an empty drive or USB port

inline constexpr std::size_t kMaxIsoImages = 2;
inline constexpr std::size_t kMaxUsbDevices = 4;

struct NicAddition {
  std::string network_id;  // "" for none
  std::string mac;         // lower case; "" for a new one
  Json::Int64 type = 1;
  bool prefer_sriov = false;
};

struct NicChange {
  std::string id;
  std::optional<std::string> network_id;
  std::optional<std::string> mac;  // lower case
  std::optional<Json::Int64> type;
  std::optional<bool> prefer_sriov;
};

struct DiskAddition {
  std::uint64_t size_mib = 0;
  Json::Int64 mode = 1;
  bool unmap = false;
  domain_xml::ImageFormat format = domain_xml::ImageFormat::kQcow2;
};

struct DiskChange {
  std::string id;
  std::uint64_t size_mib = 0;
  std::optional<Json::Int64> mode;
  std::optional<bool> unmap;
};

struct EditRequest {
  bool must_apply_now = false;  // kApplyNow (guest_setting.h)
  // The members to be set in the guest's record, as they are stored; "usbs" always has kMaxUsbDevices entries.
  Json::Value members{Json::objectValue};
  std::vector<NicAddition> nics_add;
  std::vector<std::string> nics_del;
  std::vector<NicChange> nics_edit;
  std::vector<DiskAddition> disks_add;
  std::vector<std::string> disks_del;
  std::vector<DiskChange> disks_edit;
  std::vector<std::string> disks_order;
  // The record of a guest that is being created, before its settings are made; what is stored of it counts only for
  // its name. Not set: the guest exists.
  std::optional<Json::Value> new_guest;

  bool HasDisks() const {
    return !disks_add.empty() || !disks_del.empty() || !disks_edit.empty() || !disks_order.empty();
  }
};

// `edit` has the parameters of the method "set" (docs/guests.md); others are ignored. Refusals: 401 (a wrong type or
// value), 932 and 938 (too many images or devices), 936 (an invalid device), each with the name of the parameter.
std::variant<EditRequest, Refusal> ParseEdit(const Json::Value& edit);

// At most 128 bytes of a string from a request, in quotes, for a message.
std::string QuoteForMessage(const std::string& text);

}  // namespace vexa::guests
