// What a guest's status contains beside its state: its disks, why it is off, and what it runs without.
#pragma once

#include <json/value.h>

#include <string>

#include "host/records/reader.h"

namespace vexa::api {

// An entry for each disk that the guest's record lists, in its order: {"vdisk_id", "name" ("" without one), "status",
// "status_type"}, the last two as users see them. Unreadable parts of a disk count as missing.
Json::Value DiskStatesOf(const records::Reader& reader, const Json::Value& guest);

// {"reason": a name from ShutdownCauseName(), "forced"}; null for a guest that is not off, or when the reason is not
// stored.
Json::Value ShutdownOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& guest);

// A sentence for each network interface that prefers a virtual function (`prefer_sriov`) and has none; empty for a
// guest that does not run. Unreadable interfaces are left out.
Json::Value NotesOf(const records::Reader& reader, const std::string& guest_id, const Json::Value& guest);

}  // namespace vexa::api
