// The commands that start, stop and delete guests.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

enum class GuestAction {
  kStart,
  kStop,
  kKill,
  kRestart,
  kSuspend,
  kResume,
  kSave,
  kRestore,
  kDelete,
  kDiscardSaved,
  kRelease
};
enum class Waiting { kNo, kUntilDone };
enum class Confirmation { kAsk, kGiven };

struct GuestActionOptions {
  GuestAction action = GuestAction::kStart;
  std::vector<std::string> guests;  // names or ids
  Waiting waiting = Waiting::kNo;   // kStart, kStop and kKill: until the guest is in the requested state
  int wait_timeout_s = 300;
  Confirmation confirmation = Confirmation::kAsk;  // kDelete
};

// The timeout of an action: --timeout, otherwise an hour, which is also the limit on hosts.
std::chrono::seconds ActionTimeout(const GlobalOptions& global);

// `vexa guest start`, `stop`, `kill`, `restart`, `suspend`, `resume`, `save`, `restore`, `delete`, `discard-saved` and
// `release`. Sends nothing unless every name is that of one guest.
ExitCode RunGuestAction(const GlobalOptions& global, const GuestActionOptions& options);

}  // namespace vexa::cli
