#include <cstring>
#include <span>
#include <string>

#include "json/readers.h"
#include "webapi/error_codes.h"
#include "webapi/guest/guest_set.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization::edit {
namespace {

constexpr unsigned int kHighestUsbVersion = 3;

// The API takes GiB, hosts take MiB.
constexpr Json::Int64 kMibPerGib = 1024;

enum class MemberCheck { kUuid, kUuidOrEmpty, kBool, kInt, kIntIfPresent, kSize, kFreeAddressIfPresent };

struct MemberRule {
  const char* member;
  MemberCheck check;
  // The format of the log line for an invalid member; its arguments are the source unit, the source position, the
  // element's index and the request. Null for MAC addresses.
  const char* error_message;
};

// Log monitors match the spellings "vincs" and "vinc_type". The members are checked in the order of the rows.
// clang-format off

constexpr MemberRule kVnicsAddRules[] = {
    {"network_id", MemberCheck::kUuidOrEmpty, R"(%s:%d Bad parameters (vincs_add[%u]["network_id"] is invalid), request: %s)"},
    {"prefer_sriov", MemberCheck::kBool, R"(%s:%d Bad parameters (vincs_add[%u]["prefer_sriov"] is not bool), request: %s)"},
    {"vnic_type", MemberCheck::kInt, R"(%s:%d Bad parameters (vincs_add[%u]["vinc_type"] is not int), request: %s)"},
    {"mac", MemberCheck::kFreeAddressIfPresent, nullptr},
};
constexpr MemberRule kVnicsDelRules[] = {
    {"vnic_id", MemberCheck::kUuid, R"(%s:%d Bad parameters (vincs_del[%u]["vnic_id"] is invalid), request: %s)"},
};
constexpr MemberRule kVnicsEditRules[] = {
    {"network_id", MemberCheck::kUuidOrEmpty, R"(%s:%d Bad parameters (vincs_edit[%u]["network_id"] is invalid), request: %s)"},
    {"vnic_id", MemberCheck::kUuid, R"(%s:%d Bad parameters (vincs_edit[%u]["vnic_id"] is invalid), request: %s)"},
    {"mac", MemberCheck::kFreeAddressIfPresent, nullptr},
    {"vnic_type", MemberCheck::kIntIfPresent, R"(%s:%d Bad parameters (vincs_edit[%u]["vinc_type"] is not int), request: %s)"},
};
constexpr MemberRule kVdisksAddRules[] = {
    {"vdisk_size", MemberCheck::kSize, R"(%s:%d Bad parameters (vdisks_add[%u]["vdisk_size"] <= 0), request: %s)"},
};
constexpr MemberRule kVdisksDelRules[] = {
    {"vdisk_id", MemberCheck::kUuid, R"(%s:%d Bad parameters (vdisks_del[%u]["vdisk_id"] is empty), request: %s)"},
};
constexpr MemberRule kVdisksEditRules[] = {
    {"vdisk_id", MemberCheck::kUuid, R"(%s:%d Bad parameters (vdisks_edit[%u]["vdisk_id"] is empty), request: %s)"},
    {"vdisk_size", MemberCheck::kSize, R"(%s:%d Bad parameters (vdisks_edit[%u]["vdisk_size"] <= 0), request: %s)"},
};
constexpr MemberRule kVdisksOrderRules[] = {
    {"vdisk_id", MemberCheck::kUuid, R"(%s:%d Bad parameters (vdisks_order[%u]["vdisk_id"] is empty), request: %s)"},
};

// clang-format on

enum class SizeConversion { kNone, kGibToMib };

struct ArrayRow {
  Name name;
  std::span<const MemberRule> rules;
  SizeConversion size_conversion;
};

// In the order in which they are checked and added to the host request.
constexpr ArrayRow kArrays[] = {
    {kVnicsAdd, kVnicsAddRules, SizeConversion::kNone},
    {kVnicsDel, kVnicsDelRules, SizeConversion::kNone},
    {kVnicsEdit, kVnicsEditRules, SizeConversion::kNone},
    {kVdisksAdd, kVdisksAddRules, SizeConversion::kGibToMib},
    {kVdisksDel, kVdisksDelRules, SizeConversion::kNone},
    {kVdisksEdit, kVdisksEditRules, SizeConversion::kGibToMib},
    {kVdisksOrder, kVdisksOrderRules, SizeConversion::kNone},
};

// Whether the placeholders of `error_message` are %s, %d, %u and %s.
constexpr bool HasErrorMessagePlaceholders(const char* error_message) {
  constexpr const char* kExpected = "sdus";
  const char* expected = kExpected;
  for (const char* c = error_message; *c; ++c) {
    if (*c == '%' && *++c != *expected++) return false;
  }
  return expected == kExpected + 4;
}

constexpr bool AllPlaceholdersMatch() {
  for (const ArrayRow& row : kArrays) {
    for (const MemberRule& rule : row.rules) {
      if (rule.check == MemberCheck::kFreeAddressIfPresent ? rule.error_message != nullptr
                                                           : !HasErrorMessagePlaceholders(rule.error_message)) {
        return false;
      }
    }
  }
  return true;
}
static_assert(AllPlaceholdersMatch(), "each error message has the placeholders of its arguments");

// Not for MAC addresses, which MacAddrCheck checks.
bool PassesCheck(MemberCheck check, const Json::Value& value) {
  switch (check) {
    case MemberCheck::kUuid:
      return VexaCCC::Utils::isUUID(json::String(value));
    case MemberCheck::kUuidOrEmpty: {
      const std::string id = json::String(value);
      return id.empty() || VexaCCC::Utils::isUUID(id);
    }
    case MemberCheck::kBool:
      return value.isBool();
    case MemberCheck::kInt:
    case MemberCheck::kIntIfPresent:
      return value.isInt();
    case MemberCheck::kSize:
      return json::Int(value) >= 1;
    case MemberCheck::kFreeAddressIfPresent:
      break;
  }
  return true;
}

void LogInvalidMember(const char* error_message, int position, Json::ArrayIndex index,
                      const VEXA::APIRequest& request) {
  const std::string parameters = RequestText(request);
  // The formats come from the tables above, which are checked at compile time.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  ::syslog(LOG_ERR, error_message, "guest", position, index, parameters.c_str());
#pragma GCC diagnostic pop
}

Refusal CheckMember(const VEXA::APIRequest& request, const MemberRule& rule, const Json::Value& element,
                    Json::ArrayIndex index) {
  const Json::Value* found = json::FindMember(element, rule.member);
  const bool is_optional = rule.check == MemberCheck::kIntIfPresent || rule.check == MemberCheck::kFreeAddressIfPresent;
  if (!found && is_optional) return {};
  const Json::Value& value = found ? *found : Json::Value::nullSingleton();
  if (rule.check == MemberCheck::kFreeAddressIfPresent) {
    Refusal refusal;
    if (MacAddrCheck(json::String(value), refusal.details) != 0) refusal.code = user_error::kAddressInUseOrGuestRuns;
    return refusal;
  }
  if (PassesCheck(rule.check, value)) return {};
  LogInvalidMember(rule.error_message, __LINE__, index, request);
  return {user_error::kBadParameter, Json::Value()};
}

Refusal CheckElements(const VEXA::APIRequest& request, const ArrayRow& row, const Json::Value& array) {
  for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
    for (const MemberRule& rule : row.rules) {
      if (Refusal refusal = CheckMember(request, rule, json::Element(array, i), i)) return refusal;
    }
  }
  return {};
}

// A copy with the sizes converted for the hosts. Every element has been checked to be an object with a size.
Json::Value WithSizesInMib(Json::Value disks) {
  for (Json::Value& disk : disks) {
    Json::Value& size = disk["vdisk_size"];
    size = json::Int(size) * kMibPerGib;
  }
  return disks;
}

Refusal CheckImages(const VEXA::APIRequest& request, const Json::Value& images) {
  for (Json::ArrayIndex i = 0; i < images.size(); ++i) {
    const Json::Value& image = json::Element(images, i);
    const std::string text = json::String(image);
    if (image.isString() && (VexaCCC::GuestImageIsValidID(text) || VexaCCC::GuestImageIsValidDsPath(text))) continue;
    const std::string parameters = RequestText(request);
    VEXA_LOG("guest", "Bad parameters (iso_images is invalid), request: %s", parameters.c_str());
    const bool is_path = image.isString() && VexaCCC::GuestImageIsDsPath(text);
    return {is_path ? user_error::kImageUnusable : user_error::kBadParameter, Json::Value()};
  }
  return {};
}

Refusal CheckUsbVersion(const Json::Value& value) {
  const int version = json::Int(value);
  if (static_cast<unsigned int>(version) <= kHighestUsbVersion) return {};
  VEXA_LOG("guest", "Unknown usb version (%d)", version);
  return {user_error::kBadParameter, Json::Value()};
}

void AddIfSet(Name name, const Parameters& parameters, VexaDRCore::Request& host_request) {
  if (parameters.IsSet(name)) host_request.addParam(ParameterName(name), parameters.Get(name));
}

}  // namespace

Refusal AddDevices(const VEXA::APIRequest& request, const Parameters& parameters, VexaDRCore::Request& host_request) {
  for (const ArrayRow& row : kArrays) {
    if (!parameters.IsSet(row.name)) continue;
    const Json::Value& array = parameters.Get(row.name);
    if (Refusal refusal = CheckElements(request, row, array)) return refusal;
    host_request.addParam(ParameterName(row.name),
                          row.size_conversion == SizeConversion::kGibToMib ? WithSizesInMib(array) : array);
  }
  if (Refusal refusal = CheckImages(request, parameters.Get(kIsoImages))) return refusal;
  AddIfSet(kIsoImages, parameters, host_request);
  AddIfSet(kDesc, parameters, host_request);
  // Added if present, as in CheckBootDevice.
  if (request.HasParam(ParameterName(kBootFrom))) {
    host_request.addParam(ParameterName(kBootFrom), parameters.Get(kBootFrom));
  }
  AddIfSet(kUseOvmf, parameters, host_request);
  if (Refusal refusal = CheckUsbVersion(parameters.Get(kUsbVersion))) return refusal;
  AddIfSet(kUsbVersion, parameters, host_request);
  if (parameters.Get(kUsbs).isArray()) AddIfSet(kUsbs, parameters, host_request);
  return {};
}

}  // namespace VexaVirtualization::edit
