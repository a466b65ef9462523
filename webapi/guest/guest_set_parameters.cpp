#include "webapi/guest/guest_set_parameters.h"

#include <algorithm>
#include <string>

#include "webapi/platform/ccc.h"

namespace VexaVirtualization::edit {
namespace {

enum class Type { kString, kInt, kBool, kArray };

// The framework's necessities.
constexpr int kRequired = 0;
constexpr int kOptional = 1;

// Whether somebody may set it who is neither administrator nor advanced user, but was granted the guest.
enum class ForGranted { kYes, kNo, kOnlyEmpty };

struct Row {
  Name name;
  const char* text;
  Type type;
  int necessity;
  bool (*validator)(const std::string&);  // of strings
  ForGranted for_granted;
};

constexpr auto* const kUuid = &VexaCCC::Utils::isUUID;
constexpr auto* const kNotEmpty = &VexaCCC::Utils::IsNotEmpty;

// In the order in which they are read.
constexpr Row kRows[] = {
    {kGuestId, "guest_id", Type::kString, kRequired, kUuid, ForGranted::kYes},
    {kName, "name", Type::kString, kOptional, kNotEmpty, ForGranted::kNo},
    {kVcpuNum, "vcpu_num", Type::kInt, kOptional, nullptr, ForGranted::kNo},
    {kVramSize, "vram_size", Type::kInt, kOptional, nullptr, ForGranted::kNo},
    {kVideoCard, "video_card", Type::kString, kOptional, nullptr, ForGranted::kNo},
    {kRepoId, "repo_id", Type::kString, kOptional, kUuid, ForGranted::kNo},
    {kDesc, "desc", Type::kString, kOptional, nullptr, ForGranted::kNo},
    {kCpuPassthru, "cpu_passthru", Type::kBool, kOptional, nullptr, ForGranted::kNo},
    {kAutorun, "autorun", Type::kInt, kOptional, nullptr, ForGranted::kNo},
    {kBootFrom, "boot_from", Type::kString, kOptional, nullptr, ForGranted::kNo},
    {kUseOvmf, "use_ovmf", Type::kBool, kOptional, nullptr, ForGranted::kYes},
    {kVnicsAdd, "vnics_add", Type::kArray, kOptional, nullptr, ForGranted::kNo},
    {kVnicsDel, "vnics_del", Type::kArray, kOptional, nullptr, ForGranted::kNo},
    {kVnicsEdit, "vnics_edit", Type::kArray, kOptional, nullptr, ForGranted::kNo},
    {kVdisksAdd, "vdisks_add", Type::kArray, kOptional, nullptr, ForGranted::kOnlyEmpty},
    {kVdisksDel, "vdisks_del", Type::kArray, kOptional, nullptr, ForGranted::kOnlyEmpty},
    {kVdisksEdit, "vdisks_edit", Type::kArray, kOptional, nullptr, ForGranted::kOnlyEmpty},
    {kVdisksOrder, "vdisks_order", Type::kArray, kOptional, nullptr, ForGranted::kOnlyEmpty},
    {kGuestPrivilege, "guest_privilege", Type::kArray, kOptional, nullptr, ForGranted::kNo},
    {kIsoImages, "iso_images", Type::kArray, kOptional, nullptr, ForGranted::kYes},
    {kUsbVersion, "usb_version", Type::kInt, kOptional, nullptr, ForGranted::kNo},
    {kUsbs, "usbs", Type::kArray, kOptional, nullptr, ForGranted::kNo},
    {kHypervEnlighten, "hyperv_enlighten", Type::kBool, kOptional, nullptr, ForGranted::kNo},
    {kKbLayout, "kb_layout", Type::kString, kOptional, nullptr, ForGranted::kNo},
    {kCpuPinNum, "cpu_pin_num", Type::kInt, kOptional, nullptr, ForGranted::kNo},
    {kCpuWeight, "cpu_weight", Type::kInt, kOptional, nullptr, ForGranted::kNo},
};

constexpr bool IsWhole() {
  if (std::size(kRows) != kNameCount) return false;
  for (std::size_t i = 0; i < kNameCount; ++i) {
    if (kRows[i].name != i) return false;
  }
  return true;
}
static_assert(IsWhole(), "each name has its row, in order");

}  // namespace

const char* TextOf(Name name) { return kRows[name].text; }

template <class T>
Parameters::Value Parameters::Taken(const VEXA::APIParameter<T>& parameter) {
  if (!parameter.IsSet()) return {parameter.IsInvalid(), false, Json::Value()};
  return {false, true, Json::Value(parameter.Get())};
}

Parameters::Value Parameters::Read(const VEXA::APIRequest& request, Name name) {
  const Row& row = kRows[name];
  switch (row.type) {
    case Type::kString:
      return Taken(request.GetAndCheckString(row.text, row.necessity, row.validator));
    case Type::kInt:
      return Taken(request.GetAndCheckInt(row.text, row.necessity));
    case Type::kBool:
      return Taken(request.GetAndCheckBool(row.text, row.necessity));
    case Type::kArray:
      return Taken(request.GetAndCheckArray(row.text, row.necessity));
  }
  return {};
}

Parameters::Parameters(const VEXA::APIRequest& request) {
  for (const Row& row : kRows) values_[row.name] = Read(request, row.name);
}

bool Parameters::IsAnyInvalid() const { return std::ranges::any_of(values_, &Value::is_invalid); }

bool Parameters::AreForGranted() const {
  return std::ranges::none_of(kRows, [this](const Row& row) {
    return row.for_granted == ForGranted::kOnlyEmpty ? IsSetAndNotEmpty(row.name)
                                                     : row.for_granted == ForGranted::kNo && IsSet(row.name);
  });
}

}  // namespace VexaVirtualization::edit
