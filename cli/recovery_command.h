// vexa guest recover, vexa host forget, vexa host revoke.
#pragma once

#include <string>
#include <vector>

#include "cli/client_options.h"

namespace vexa::cli {

enum class MachineState { kUnknown, kConfirmedOff };

struct RecoverOptions {
  std::vector<std::string> guests;  // ids or names
  std::string to_host;              // id or name; empty: any host, chosen when the guest is started next
  MachineState machine = MachineState::kUnknown;
  bool discard_saved = false;
};

// Sends nothing unless every name is that of one guest. Continues with the others when one fails.
ExitCode RunGuestRecover(const GlobalOptions& global, const RecoverOptions& options);

struct ForgetOptions {
  std::string host;  // id or name
  MachineState machine = MachineState::kUnknown;
  bool recover_guests = false;
};

ExitCode RunHostForget(const GlobalOptions& global, const ForgetOptions& options);

// `host` is an id or a name.
ExitCode RunHostRevoke(const GlobalOptions& global, const std::string& host);

}  // namespace vexa::cli
