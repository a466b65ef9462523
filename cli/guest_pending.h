// What of a running guest waits for its next start, and vexa guest apply.
#pragma once

#include <json/value.h>

#include <string>

#include "cli/client_options.h"
#include "cli/guest_names.h"

namespace vexa::cli {

struct GuestApplyOptions {
  std::string guest;  // id or name
  bool force_eject = false;
};
ExitCode RunGuestApply(const GlobalOptions& global, const GuestApplyOptions& options);

// Prints a table of "pending" in the reply to "status" or "apply", or why it is unknown. Nothing when nothing waits.
void PrintPending(const Json::Value& reply);

// For a reply to "get" about the guest: asks the server, and prints the same. A failure prints nothing.
void ShowPending(const GlobalOptions& global, const std::string& guest_id);

// "; waits for its next start: vcpu_num, vdisks" after an edit of the guest, or "".
std::string PendingText(const GlobalOptions& global, const NamedGuest& guest);

}  // namespace vexa::cli
