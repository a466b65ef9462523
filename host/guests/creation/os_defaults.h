// What a new guest gets for the settings that its creator leaves out.
#pragma once

#include <json/value.h>

#include <string>
#include <string_view>
#include <vector>

namespace vexa::guests {

// The names of the kinds of operating systems, for messages and help: "linux", "windows", "other".
std::vector<std::string_view> OsNames();

inline constexpr std::string_view kDefaultOs = "linux";

// Adds all missing settings to `parameters`, an object with the parameters of an edit, and to the elements of its lists
// "vdisks_add" and "vnics_add". What is there stays, whatever it is. False, and changes nothing: there is no such kind
// of operating system.
bool AddOsDefaults(const std::string& os, Json::Value& parameters);

}  // namespace vexa::guests
