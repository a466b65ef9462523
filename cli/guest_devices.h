// Images, disks and network interfaces of `vexa guest set` by the names that users know.
#pragma once

#include <json/value.h>

#include <string>

#include "cli/client_options.h"
#include "cli/guest_set_arguments.h"

namespace vexa::cli {

// Whether the arguments refer to disks by number ("1" is the first one that 'vexa guest get' shows), or to interfaces
// by number or MAC address.
bool HasDeviceNumbers(const GuestSetArguments& arguments);

// Replaces these numbers and addresses by the ids of the guest's disks and interfaces. Failures are printed.
ExitCode ResolveDevices(HttpClient& client, const std::string& guest_id, GuestSetArguments& arguments);

// Replaces names of images in "iso_images" by their ids; ids, absolute paths and empty drives stay. Failures are
// printed.
ExitCode ResolveImages(HttpClient& client, Json::Value& parameters);

}  // namespace vexa::cli
