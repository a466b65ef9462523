#include "webapi/guest/guest_set_parameters.h"

#include <algorithm>
#include <string>

#include "webapi/platform/ccc.h"

namespace VexaVirtualization::edit {
namespace {

enum class Type { kString, kInt, kBool, kArray };

// Values of the `necessity` argument of GetAndCheckString and its siblings.
constexpr int kRequired = 0;
constexpr int kOptional = 1;

// Whether an ordinary user who was granted the guest may set it.
enum class GranteeMaySet { kYes, kNo, kOnlyEmpty };

struct ParameterRow {
  Name name;
  const char* api_name;
  Type type;
  int necessity;
  bool (*validator)(const std::string&);  // for strings only; may be null
  GranteeMaySet grantee_may_set;
};

constexpr auto* const kUuid = &VexaCCC::Utils::isUUID;
constexpr auto* const kNotEmpty = &VexaCCC::Utils::IsNotEmpty;

// In the order of Name, which is the order in which they are read.
constexpr ParameterRow kParameters[] = {
    {kGuestId, "guest_id", Type::kString, kRequired, kUuid, GranteeMaySet::kYes},
    {kName, "name", Type::kString, kOptional, kNotEmpty, GranteeMaySet::kNo},
    {kVcpuNum, "vcpu_num", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
    {kVramSize, "vram_size", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
    {kVideoCard, "video_card", Type::kString, kOptional, nullptr, GranteeMaySet::kNo},
    {kRepoId, "repo_id", Type::kString, kOptional, kUuid, GranteeMaySet::kNo},
    {kDesc, "desc", Type::kString, kOptional, nullptr, GranteeMaySet::kNo},
    {kCpuPassthru, "cpu_passthru", Type::kBool, kOptional, nullptr, GranteeMaySet::kNo},
    {kAutorun, "autorun", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
    {kBootFrom, "boot_from", Type::kString, kOptional, nullptr, GranteeMaySet::kNo},
    {kUseOvmf, "use_ovmf", Type::kBool, kOptional, nullptr, GranteeMaySet::kYes},
    {kVnicsAdd, "vnics_add", Type::kArray, kOptional, nullptr, GranteeMaySet::kNo},
    {kVnicsDel, "vnics_del", Type::kArray, kOptional, nullptr, GranteeMaySet::kNo},
    {kVnicsEdit, "vnics_edit", Type::kArray, kOptional, nullptr, GranteeMaySet::kNo},
    {kVdisksAdd, "vdisks_add", Type::kArray, kOptional, nullptr, GranteeMaySet::kOnlyEmpty},
    {kVdisksDel, "vdisks_del", Type::kArray, kOptional, nullptr, GranteeMaySet::kOnlyEmpty},
    {kVdisksEdit, "vdisks_edit", Type::kArray, kOptional, nullptr, GranteeMaySet::kOnlyEmpty},
    {kVdisksOrder, "vdisks_order", Type::kArray, kOptional, nullptr, GranteeMaySet::kOnlyEmpty},
    {kGuestPrivilege, "guest_privilege", Type::kArray, kOptional, nullptr, GranteeMaySet::kNo},
    {kIsoImages, "iso_images", Type::kArray, kOptional, nullptr, GranteeMaySet::kYes},
    {kUsbVersion, "usb_version", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
    {kUsbs, "usbs", Type::kArray, kOptional, nullptr, GranteeMaySet::kNo},
    {kHypervEnlighten, "hyperv_enlighten", Type::kBool, kOptional, nullptr, GranteeMaySet::kNo},
    {kKbLayout, "kb_layout", Type::kString, kOptional, nullptr, GranteeMaySet::kNo},
    {kCpuPinNum, "cpu_pin_num", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
    {kCpuWeight, "cpu_weight", Type::kInt, kOptional, nullptr, GranteeMaySet::kNo},
};

constexpr bool CoversAllNames() {
  if (std::size(kParameters) != kNameCount) return false;
  for (std::size_t i = 0; i < kNameCount; ++i) {
    if (kParameters[i].name != i) return false;
  }
  return true;
}
static_assert(CoversAllNames(), "each name has its row, in order");

}  // namespace

const char* ParameterName(Name name) { return kParameters[name].api_name; }

template <class T>
Parameters::Value Parameters::ToValue(const VEXA::APIParameter<T>& parameter) {
  if (!parameter.IsSet()) return {parameter.IsInvalid(), false, Json::Value()};
  return {false, true, Json::Value(parameter.Get())};
}

Parameters::Value Parameters::Read(const VEXA::APIRequest& request, Name name) {
  const ParameterRow& row = kParameters[name];
  switch (row.type) {
    case Type::kString:
      return ToValue(request.GetAndCheckString(row.api_name, row.necessity, row.validator));
    case Type::kInt:
      return ToValue(request.GetAndCheckInt(row.api_name, row.necessity));
    case Type::kBool:
      return ToValue(request.GetAndCheckBool(row.api_name, row.necessity));
    case Type::kArray:
      return ToValue(request.GetAndCheckArray(row.api_name, row.necessity));
  }
  return {};
}

Parameters::Parameters(const VEXA::APIRequest& request) {
  for (const ParameterRow& row : kParameters) values_[row.name] = Read(request, row.name);
}

bool Parameters::IsAnyInvalid() const { return std::ranges::any_of(values_, &Value::is_invalid); }

bool Parameters::AreAllowedForGrantee() const {
  return std::ranges::none_of(kParameters, [this](const ParameterRow& row) {
    return row.grantee_may_set == GranteeMaySet::kOnlyEmpty
               ? IsSetAndNotEmpty(row.name)
               : row.grantee_may_set == GranteeMaySet::kNo && IsSet(row.name);
  });
}

}  // namespace VexaVirtualization::edit
