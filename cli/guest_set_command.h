// vexa guest set, and what the commands that edit a guest share.
#pragma once

#include <json/value.h>

#include <functional>
#include <string>
#include <vector>

#include "cli/account_places.h"
#include "cli/client_options.h"
#include "cli/guest_names.h"
#include "cli/guest_words.h"

namespace vexa::cli {

enum class DryRun { kNo, kYes };
enum class NamesFrom { kServer, kStore };

struct GuestSetOptions {
  std::string guest;  // name or id
  GuestWords words;
  std::vector<std::string> allow;        // "user:alice", "group:staff", "uid:1026", "gid:100"
  std::vector<std::string> revoke;       // the same
  NamesFrom names = NamesFrom::kServer;  // where names of users and groups are looked up
  AccountPlaces places;                  // kStore only
  bool from_system = false;              // they are the machine's own instead
  DryRun dry_run = DryRun::kNo;
};

// Nothing is sent unless all words are understood, each user and group is found, and the name is one guest's.
ExitCode RunGuestSet(const GlobalOptions& global, const GuestSetOptions& options);

// The one guest that is called `word`; failures are printed.
ExitCode FindGuest(HttpClient& client, const std::string& word, NamedGuest& guest);

// Calls "set" for the guest. Ctrl-C ends the program with 130, and `on_interrupt` is called before.
CallOutcome SendEdit(
    const GlobalOptions& global, HttpClientOptions connect, const NamedGuest& guest, const Json::Value& parameters,
    const std::function<void()>& on_interrupt = [] {});

// Whether the guest was edited although the call failed: only what comes after the edit did not succeed.
bool WasEdited(const CallOutcome& outcome);

// Tells `text`, as what came of `outcome`, in the form that is asked for; the exit code.
ExitCode ShowOutcome(const GlobalOptions& global, const NamedGuest& guest, const CallOutcome& outcome,
                     const std::string& text);
// Tells what came of SendEdit.
ExitCode ShowEdit(const GlobalOptions& global, const NamedGuest& guest, const Json::Value& parameters,
                  const CallOutcome& outcome);

}  // namespace vexa::cli
