// The arguments of `vexa guest set` that request changes to a guest.
#pragma once

#include <json/value.h>

#include <span>
#include <string>
#include <vector>

#include "host/base/guest_setting.h"
#include "host/base/result.h"

namespace vexa::cli {

// The settings with a single value, in the order of the help.
std::span<const GuestSetting* const> Settings();
// Null when there is no setting of this name.
const GuestSetting* FindSetting(const std::string& name);
// "There is no setting 'vcpus'; did you mean 'vcpu_num'? The settings are …".
Error UnknownSetting(const std::string& name);

// The content of a drive without an image.
inline constexpr char kEmptyDrive[] = "unmounted";

struct GuestSetArguments {
  std::vector<std::string> settings;    // "vcpu_num=4"
  std::vector<std::string> add_disks;   // GiB
  std::vector<std::string> del_disks;   // ids
  std::vector<std::string> grow_disks;  // "ID=GIB"
  std::string order_disks;              // "ID,ID"; "" for none
  std::vector<std::string> add_nics;    // "net=NETWORK,type=1,mac=02:00:5e:10:00:01,sriov=true"
  std::vector<std::string> del_nics;    // ids
  std::vector<std::string> edit_nics;   // "ID,net=…"
  std::vector<std::string> isos;        // ids and names of images, absolute paths, "none"
  std::vector<std::string> usbs;        // "1234:00ab", "3.14", "none"
};

// The parameters of "set" for these arguments, without "guest_id". "network_id" and "iso_images" have names where
// the arguments have them. kInvalid for an argument that cannot be parsed and
// for a value that a guest cannot have.
Result<Json::Value> ParametersOf(const GuestSetArguments& arguments);

// Adds the properties of a network interface in `properties`, such as "type=1" or "mac=02:00:5e:10:00:01", to `nic`.
// kInvalid for one that cannot be parsed.
Status AddNicProperties(const std::vector<std::string>& properties, Json::Value& nic);

// Whether a host could accept these parameters of "set" for some guest. The API refuses most invalid values with one
// code and no reason, so they are checked here.
Status CheckParameters(const Json::Value& parameters);

}  // namespace vexa::cli
