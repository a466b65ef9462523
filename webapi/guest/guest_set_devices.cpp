#include <cstring>
#include <span>
#include <string>

#include "json/readers.h"
#include "webapi/guest/guest_set.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"
#include "webapi/utils/log.h"
#include "webapi/utils/utils.h"

namespace VexaVirtualization::edit {
namespace {

constexpr int kAddressInUse = 910;
constexpr int kImageUnusable = 934;

constexpr unsigned int kHighestUsbVersion = 3;

// A size of the API in the hosts' unit.
constexpr Json::Int64 kHostUnits = 1024;

enum class Demand { kUuid, kUuidOrEmpty, kBool, kInt, kIntIfPresent, kSize, kFreeAddressIfPresent };

struct MemberRule {
  const char* member;
  Demand demand;
  // The line for one that fails, with unit, position, index and request; none for an address.
  const char* complaint;
};

// "vincs" and "vinc_type" are what log watchers look for. The order of the rows is that of the checks.
// clang-format off

constexpr MemberRule kVnicsAddRules[] = {
    {"network_id", Demand::kUuidOrEmpty, R"(%s:%d Bad parameters (vincs_add[%u]["network_id"] is invalid), request: %s)"},
    {"prefer_sriov", Demand::kBool, R"(%s:%d Bad parameters (vincs_add[%u]["prefer_sriov"] is not bool), request: %s)"},
    {"vnic_type", Demand::kInt, R"(%s:%d Bad parameters (vincs_add[%u]["vinc_type"] is not int), request: %s)"},
    {"mac", Demand::kFreeAddressIfPresent, nullptr},
};
constexpr MemberRule kVnicsDelRules[] = {
    {"vnic_id", Demand::kUuid, R"(%s:%d Bad parameters (vincs_del[%u]["vnic_id"] is invalid), request: %s)"},
};
constexpr MemberRule kVnicsEditRules[] = {
    {"network_id", Demand::kUuidOrEmpty, R"(%s:%d Bad parameters (vincs_edit[%u]["network_id"] is invalid), request: %s)"},
    {"vnic_id", Demand::kUuid, R"(%s:%d Bad parameters (vincs_edit[%u]["vnic_id"] is invalid), request: %s)"},
    {"mac", Demand::kFreeAddressIfPresent, nullptr},
    {"vnic_type", Demand::kIntIfPresent, R"(%s:%d Bad parameters (vincs_edit[%u]["vinc_type"] is not int), request: %s)"},
};
constexpr MemberRule kVdisksAddRules[] = {
    {"vdisk_size", Demand::kSize, R"(%s:%d Bad parameters (vdisks_add[%u]["vdisk_size"] <= 0), request: %s)"},
};
constexpr MemberRule kVdisksDelRules[] = {
    {"vdisk_id", Demand::kUuid, R"(%s:%d Bad parameters (vdisks_del[%u]["vdisk_id"] is empty), request: %s)"},
};
constexpr MemberRule kVdisksEditRules[] = {
    {"vdisk_id", Demand::kUuid, R"(%s:%d Bad parameters (vdisks_edit[%u]["vdisk_id"] is empty), request: %s)"},
    {"vdisk_size", Demand::kSize, R"(%s:%d Bad parameters (vdisks_edit[%u]["vdisk_size"] <= 0), request: %s)"},
};
constexpr MemberRule kVdisksOrderRules[] = {
    {"vdisk_id", Demand::kUuid, R"(%s:%d Bad parameters (vdisks_order[%u]["vdisk_id"] is empty), request: %s)"},
};

// clang-format on

enum class Sizes { kNone, kScaled };

struct ArrayRow {
  Name name;
  std::span<const MemberRule> rules;
  Sizes sizes;
};

// In the order in which they are checked and added.
constexpr ArrayRow kArrays[] = {
    {kVnicsAdd, kVnicsAddRules, Sizes::kNone},       {kVnicsDel, kVnicsDelRules, Sizes::kNone},
    {kVnicsEdit, kVnicsEditRules, Sizes::kNone},     {kVdisksAdd, kVdisksAddRules, Sizes::kScaled},
    {kVdisksDel, kVdisksDelRules, Sizes::kNone},     {kVdisksEdit, kVdisksEditRules, Sizes::kScaled},
    {kVdisksOrder, kVdisksOrderRules, Sizes::kNone},
};

// Whether the placeholders of `complaint` are %s, %d, %u and %s.
constexpr bool IsSoundComplaint(const char* complaint) {
  constexpr const char* kExpected = "sdus";
  const char* expected = kExpected;
  for (const char* c = complaint; *c; ++c) {
    if (*c == '%' && *++c != *expected++) return false;
  }
  return expected == kExpected + 4;
}

constexpr bool AreSound() {
  for (const ArrayRow& row : kArrays) {
    for (const MemberRule& rule : row.rules) {
      if (rule.demand == Demand::kFreeAddressIfPresent ? rule.complaint != nullptr
                                                       : !IsSoundComplaint(rule.complaint)) {
        return false;
      }
    }
  }
  return true;
}
static_assert(AreSound(), "a complaint asks for what it is given");

// Of everything but addresses.
bool IsMet(Demand demand, const Json::Value& value) {
  switch (demand) {
    case Demand::kUuid:
      return VexaCCC::Utils::isUUID(json::String(value));
    case Demand::kUuidOrEmpty: {
      const std::string id = json::String(value);
      return id.empty() || VexaCCC::Utils::isUUID(id);
    }
    case Demand::kBool:
      return value.isBool();
    case Demand::kInt:
    case Demand::kIntIfPresent:
      return value.isInt();
    case Demand::kSize:
      return json::Int(value) >= 1;
    case Demand::kFreeAddressIfPresent:
      break;
  }
  return true;
}

void Complain(const char* complaint, int position, Json::ArrayIndex index, const VEXA::APIRequest& request) {
  const std::string parameters = TextOf(request);
  // The formats are the rows above, which have been checked.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  ::syslog(LOG_ERR, complaint, "guest", position, index, parameters.c_str());
#pragma GCC diagnostic pop
}

Refusal CheckMember(const VEXA::APIRequest& request, const MemberRule& rule, const Json::Value& element,
                    Json::ArrayIndex index) {
  const Json::Value* found = json::FindMember(element, rule.member);
  const bool is_optional = rule.demand == Demand::kIntIfPresent || rule.demand == Demand::kFreeAddressIfPresent;
  if (!found && is_optional) return {};
  const Json::Value& value = found ? *found : Json::Value::nullSingleton();
  if (rule.demand == Demand::kFreeAddressIfPresent) {
    Refusal refusal;
    if (MacAddrCheck(json::String(value), refusal.details) != 0) refusal.code = kAddressInUse;
    return refusal;
  }
  if (IsMet(rule.demand, value)) return {};
  Complain(rule.complaint, __LINE__, index, request);
  return {kBadParameter, Json::Value()};
}

Refusal CheckElements(const VEXA::APIRequest& request, const ArrayRow& row, const Json::Value& array) {
  for (Json::ArrayIndex i = 0; i < array.size(); ++i) {
    for (const MemberRule& rule : row.rules) {
      if (Refusal refusal = CheckMember(request, rule, json::Element(array, i), i)) return refusal;
    }
  }
  return {};
}

// A copy in the hosts' unit. Every element has been checked to be an object with a size.
Json::Value WithScaledSizes(Json::Value disks) {
  for (Json::Value& disk : disks) {
    Json::Value& size = disk["vdisk_size"];
    size = json::Int(size) * kHostUnits;
  }
  return disks;
}

Refusal CheckImages(const VEXA::APIRequest& request, const Json::Value& images) {
  for (Json::ArrayIndex i = 0; i < images.size(); ++i) {
    const Json::Value& image = json::Element(images, i);
    const std::string text = json::String(image);
    if (image.isString() && (VexaCCC::GuestImageIsValidID(text) || VexaCCC::GuestImageIsValidDsPath(text))) continue;
    const std::string parameters = TextOf(request);
    VEXA_LOG("guest", "Bad parameters (iso_images is invalid), request: %s", parameters.c_str());
    const bool is_path = image.isString() && VexaCCC::GuestImageIsDsPath(text);
    return {is_path ? kImageUnusable : kBadParameter, Json::Value()};
  }
  return {};
}

Refusal CheckUsbVersion(const Json::Value& value) {
  const int version = json::Int(value);
  if (static_cast<unsigned int>(version) <= kHighestUsbVersion) return {};
  VEXA_LOG("guest", "Unknown usb version (%d)", version);
  return {kBadParameter, Json::Value()};
}

void AddIfSet(Name name, const Parameters& parameters, VexaDRCore::Request& order) {
  if (parameters.IsSet(name)) order.addParam(TextOf(name), parameters.Get(name));
}

}  // namespace

Refusal AddDevices(const VEXA::APIRequest& request, const Parameters& parameters, VexaDRCore::Request& order) {
  for (const ArrayRow& row : kArrays) {
    if (!parameters.IsSet(row.name)) continue;
    const Json::Value& array = parameters.Get(row.name);
    if (Refusal refusal = CheckElements(request, row, array)) return refusal;
    order.addParam(TextOf(row.name), row.sizes == Sizes::kScaled ? WithScaledSizes(array) : array);
  }
  if (Refusal refusal = CheckImages(request, parameters.Get(kIsoImages))) return refusal;
  AddIfSet(kIsoImages, parameters, order);
  AddIfSet(kDesc, parameters, order);
  // By presence, as it was checked.
  if (request.HasParam(TextOf(kBootFrom))) order.addParam(TextOf(kBootFrom), parameters.Get(kBootFrom));
  AddIfSet(kUseOvmf, parameters, order);
  if (Refusal refusal = CheckUsbVersion(parameters.Get(kUsbVersion))) return refusal;
  AddIfSet(kUsbVersion, parameters, order);
  if (parameters.Get(kUsbs).isArray()) AddIfSet(kUsbs, parameters, order);
  return {};
}

}  // namespace VexaVirtualization::edit
