// What a guest can be edited with. For this library only.
#pragma once

#include <json/value.h>

#include <array>
#include <cstddef>

#include "webapi/platform/webapi.h"

namespace VexaVirtualization::edit {

enum Name : std::size_t {
  kGuestId,
  kName,
  kVcpuNum,
  kVramSize,
  kVideoCard,
  kRepoId,
  kDesc,
  kCpuPassthru,
  kAutorun,
  kBootFrom,
  kUseOvmf,
  kVnicsAdd,
  kVnicsDel,
  kVnicsEdit,
  kVdisksAdd,
  kVdisksDel,
  kVdisksEdit,
  kVdisksOrder,
  kGuestPrivilege,
  kIsoImages,
  kUsbVersion,
  kUsbs,
  kHypervEnlighten,
  kKbLayout,
  kCpuPinNum,
  kCpuWeight,
  kNameCount,
};

// As requests and orders call it.
const char* TextOf(Name name);

// The parameters of one request, read once.
class Parameters {
 public:
  explicit Parameters(const VEXA::APIRequest& request);

  // Whether one has a wrong type, or is missing or refused.
  bool IsAnyInvalid() const;
  // Whether only what somebody may change who was granted the guest, and nothing more, is set. Empty lists of disks
  // change nothing and may be sent; an empty list of anything else may not.
  bool AreForGranted() const;

  bool IsSet(Name name) const { return values_[name].is_set; }
  bool IsSetAndNotEmpty(Name name) const { return IsSet(name) && !values_[name].value.empty(); }
  // Null unless it is set.
  const Json::Value& Get(Name name) const { return values_[name].value; }

 private:
  struct Value {
    bool is_invalid = false;
    bool is_set = false;
    Json::Value value;
  };
  template <class T>
  static Value Taken(const VEXA::APIParameter<T>& parameter);
  static Value Read(const VEXA::APIRequest& request, Name name);

  std::array<Value, kNameCount> values_;
};

}  // namespace VexaVirtualization::edit
