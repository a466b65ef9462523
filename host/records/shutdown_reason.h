// Why a guest is off.
//
// The reason is kept with the guest's live state, as the member "shutdown" of /live/<guest id>: {"value", "forced"}. It
// is written in the same commit as the state, and removed when the guest runs again. Readers of the guest's record
// find it there under "shutdownreasonvalue" and "is_forced_shutdown" while the guest is off.
// Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

// The values from 5 on have fixed meanings for those who show guests. docs/states.md says who produces which.
enum class ShutdownCause : int {
  kNotKnown = 0,              // this host has not seen it end
  kFromInside = 1,            // its system ended, or somebody ended its machine without this system
  kShutDown = 2,              // a user shut it down
  kPoweredOff = 3,            // a user powered it off
  kCrashed = 4,               // its machine ended by no will of its own
  kRepositoryFull = 5,        // its machine had stopped since its repository was full, and was powered off
  kStorageUnavailable = 6,    // the same: its repository was not mounted or did not answer
  kStorageCrashed = 7,        // the same: its repository failed
  kStorageReadOnly = 8,       // the same: its repository could not be written
  kFenced = 9,                // high availability, or a cluster that had frozen, ended it
  kHostOffline = 10,          // its host went away, and it was given up there
  kStorageInaccessible = 11,  // as 6: the host of its repository was gone
  kNoResources = 12,          // it could not be started: memory or processors were short
  kBootRefused = 13,          // it could not be started: the hypervisor refused
  kBootNoStorage = 14,        // it could not be started: its repository, a disk or the hypervisor could not be used
  kBootNoNetwork = 15,        // it could not be started: a network was missing
  kBootFailed = 16,           // it could not be started for any other reason
};

struct ShutdownReason {
  ShutdownCause cause = ShutdownCause::kNotKnown;
  bool is_forced = false;  // its system had no chance to end by itself
  bool operator==(const ShutdownReason&) const = default;
};

// As a word for programs: "powered_off", "no_resources", …
std::string_view ShutdownWord(ShutdownCause cause);

Json::Value ShutdownJson(const ShutdownReason& reason);
// Not set: it is none.
std::optional<ShutdownReason> ShutdownFromJson(const Json::Value& value);

// The stored reason; not set without one. Damaged records count as none. Errors: what the store says.
Result<std::optional<ShutdownReason>> ReadShutdown(const std::string& guest_id);

// Puts the stored reason into the guest's record, whose "state" holds already. Nothing of a guest that is not off.
// Errors: as ReadShutdown.
Status PutShutdown(const std::string& guest_id, Json::Value& record);

}  // namespace vexa::cluster
