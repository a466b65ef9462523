// vexa guest set, and functions shared by the commands that edit a guest.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

#include "cli/client_options.h"
#include "cli/guest_names.h"
#include "cli/guest_words.h"
#include "cli/user_command.h"

namespace vexa::cli {

enum class DryRun { kNo, kYes };

struct GuestSetOptions {
  std::string guest;  // name or id
  GuestWords words;
  std::vector<std::string> allow;   // "user:alice", "group:staff", "uid:1026", "gid:100"
  std::vector<std::string> revoke;  // likewise
  AccountPlaces places;             // where to look up names of users and groups
  bool from_system = false;         // look them up in the machine's own accounts instead
  DryRun dry_run = DryRun::kNo;
};

// Sends nothing unless all words are valid, each user and group is found, and the name is that of one guest.
ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options);

// The guest for `word`; failures are printed.
ExitCode FindGuest(HttpClient& client, const std::string& word, NamedGuest& guest);

// Calls "set" for the guest. Ctrl-C calls `on_interrupt` and ends the program with 130.
CallOutcome SendEdit(
    const GlobalOptions& global, HttpClientOptions connect, const NamedGuest& guest, const Json::Value& parameters,
    const std::function<void()>& on_interrupt = [] {});

// Whether the guest was edited although the call failed: only a step after the edit failed.
bool WasEdited(const CallOutcome& outcome);

// Prints `text` as the result of `outcome`, in the requested format; returns the exit code.
ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text);
// Prints the result of SendEdit.
ExitCode ShowEdit(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                  const CallOutcome& outcome);

}  // namespace vexa::cli
