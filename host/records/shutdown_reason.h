// Why a guest is off.
//
// The reason is stored with the guest's live state, as the member "shutdown" of /live/<guest id>: {"value", "forced"}.
// It is written in the same commit as the state, and removed when the guest runs again. While the guest is off, readers
// of its record find the reason there as "shutdownreasonvalue" and "is_forced_shutdown".
// Threads: any, at the same time.
#pragma once

#include <json/value.h>

#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::cluster {

// The values from 5 on have fixed meanings for programs that show guests. docs/states.md lists which code produces
// which value.
enum class ShutdownCause : int {
  kNotKnown = 0,              // this host did not see it end
  kFromInside = 1,            // its system ended, or its machine was ended without this system
  kShutDown = 2,              // a user shut it down
  kPoweredOff = 3,            // a user powered it off
  kCrashed = 4,               // its machine ended unexpectedly
  kRepositoryFull = 5,        // its machine had stopped because its repository was full, and was powered off
  kStorageUnavailable = 6,    // likewise: its repository was not mounted or did not respond
  kStorageCrashed = 7,        // likewise: its repository failed
  kStorageReadOnly = 8,       // likewise: its repository could not be written
  kFenced = 9,                // ended by high availability, or by a cluster that had frozen
  kHostOffline = 10,          // its host went away, and the guest was given up there
  kStorageInaccessible = 11,  // as 6: the host of its repository was gone
  kNoResources = 12,          // it could not be started: not enough memory or processors
  kBootRefused = 13,          // it could not be started: the hypervisor refused
  kBootNoStorage = 14,        // it could not be started: its repository, a disk or the hypervisor could not be used
  kBootNoNetwork = 15,        // it could not be started: a network was missing
  kBootFailed = 16,           // it could not be started for another reason
};

struct ShutdownReason {
  ShutdownCause cause = ShutdownCause::kNotKnown;
  bool is_forced = false;  // its system had no chance to shut down
  bool operator==(const ShutdownReason&) const = default;
};

// As a word for programs: "powered_off", "no_resources", …
std::string_view ShutdownWord(ShutdownCause cause);

Json::Value ShutdownJson(const ShutdownReason& reason);
// Not set: the value is not a reason.
std::optional<ShutdownReason> ShutdownFromJson(const Json::Value& value);

// The stored reason; not set without one. Damaged records count as missing. Errors: those of the store.
Result<std::optional<ShutdownReason>> ReadShutdown(const std::string& guest_id);

// Puts the stored reason into the guest's record, which must already contain "state". Does nothing for a guest that is
// not off. Errors: those of ReadShutdown.
Status PutShutdown(const std::string& guest_id, Json::Value& record);

}  // namespace vexa::cluster
