// vexa guest set, and functions shared by the commands that edit a guest.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

#include "cli/account_paths.h"
#include "cli/client_options.h"
#include "cli/guest_names.h"
#include "cli/guest_set_arguments.h"

namespace vexa::cli {

enum class DryRun { kNo, kYes };
enum class NamesFrom { kServer, kStore };

struct GuestSetOptions {
  std::string guest;  // name or id
  GuestSetArguments arguments;
  std::vector<std::string> allow;        // "user:alice", "group:staff", "uid:1026", "gid:100"
  std::vector<std::string> revoke;       // the same
  NamesFrom names = NamesFrom::kServer;  // where names of users and groups are looked up
  AccountPaths paths;                    // kStore only
  bool from_system = false;              // users and groups of the operating system instead
  DryRun dry_run = DryRun::kNo;
  std::string apply;  // "now", "next_start", or "" for what can be applied now
};

// Sends nothing unless all arguments are valid, each user and group is found, and the name is that of one guest.
ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options);

// Finds the guest with this id or name; failures are printed.
ExitCode FindGuest(HttpClient& client, const std::string& id_or_name, NamedGuest& guest);

// Calls "set" for the guest. Ctrl-C calls `on_interrupt` and ends the program with exit code 130.
CallOutcome SendEdit(
    const GlobalOptions& global, HttpClientOptions connect, const NamedGuest& guest, const Json::Value& parameters,
    const std::function<void()>& on_interrupt = [] {});

// Whether the guest was edited: the call succeeded, or only a step after the edit failed.
bool WasGuestEdited(const CallOutcome& outcome);

// Prints `text` as the result of `outcome`, or with --json an object; returns the exit code.
ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text);
// Prints the result of SendEdit.
ExitCode ShowEditResult(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                        const CallOutcome& outcome);

}  // namespace vexa::cli
