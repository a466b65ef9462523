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
#include "host/records/reader.h"

namespace vexa::records {

// The numbers are stored; those from 5 on have fixed meanings for programs that display guests. docs/states.md lists
// which code produces which value.
enum class ShutdownCause : int {
  kUnknown = 0,               // this host did not see it end
  kByGuest = 1,               // its operating system shut down, or its domain was ended by another program
  kShutDown = 2,              // a user shut it down
  kPoweredOff = 3,            // a user powered it off
  kCrashed = 4,               // its VM process ended unexpectedly
  kRepositoryFull = 5,        // it was powered off after its domain had paused because its repository was full
  kStorageUnavailable = 6,    // likewise: its repository was not mounted or did not respond
  kStorageCrashed = 7,        // likewise: its repository failed
  kStorageReadOnly = 8,       // likewise: its repository could not be written
  kFenced = 9,                // ended by high availability, or because the cluster had frozen
  kHostOffline = 10,          // its host was gone, and an administrator recovered the guest
  kStorageInaccessible = 11,  // as 6: the host of its repository was gone
  kNoResources = 12,          // it could not be started: not enough memory or processors
  kBootRefused = 13,          // it could not be started: the hypervisor refused
  kBootNoStorage = 14,        // it could not be started: its repository, a disk or the hypervisor could not be used
  kBootNoNetwork = 15,        // it could not be started: a network was missing
  kBootFailed = 16,           // it could not be started for another reason
};

struct ShutdownReason {
  ShutdownCause cause = ShutdownCause::kUnknown;
  bool is_forced = false;  // its operating system had no chance to shut down
  bool operator==(const ShutdownReason&) const = default;
};

// The name of the cause in the API: "powered_off", "start_failed_no_resources", …
std::string_view ShutdownCauseName(ShutdownCause cause);

Json::Value ShutdownToJson(const ShutdownReason& reason);
// Not set: the value is not a reason.
std::optional<ShutdownReason> ShutdownFromJson(const Json::Value& value);

// The stored reason; not set without one. Damaged records count as missing. Errors: those of the store.
Result<std::optional<ShutdownReason>> ReadShutdown(const Reader& reader, const std::string& guest_id);

// Puts the stored reason into the guest's record, which must already contain "state". Does nothing for a guest that is
// not off. Errors: those of ReadShutdown.
Status PutShutdownReason(const Reader& reader, const std::string& guest_id, Json::Value& record);

}  // namespace vexa::records
