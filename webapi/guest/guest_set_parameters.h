// The parameters of an edit of a guest. Internal to this library.
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

// The parameter's name, in requests from users and to hosts.
const char* ParameterName(Name name);

// The parameters of one request, read once.
class Parameters {
 public:
  explicit Parameters(const VEXA::APIRequest& request);

  // Whether any parameter has the wrong type, fails its validator, or is required but missing.
  bool IsAnyInvalid() const;
  // Whether only parameters are set that a user who was granted the guest may change. Empty lists of disks change
  // nothing and are allowed; other empty lists are not.
  bool AreAllowedForGrantee() const;

  bool IsSet(Name name) const { return values_[name].is_set; }
  bool IsSetAndNotEmpty(Name name) const { return IsSet(name) && !values_[name].value.empty(); }
  // Null unless set.
  const Json::Value& Get(Name name) const { return values_[name].value; }

 private:
  struct Value {
    bool is_invalid = false;
    bool is_set = false;
    Json::Value value;
  };
  template <class T>
  static Value ToValue(const VEXA::APIParameter<T>& parameter);
  static Value Read(const VEXA::APIRequest& request, Name name);

  std::array<Value, kNameCount> values_;
};

}  // namespace VexaVirtualization::edit
