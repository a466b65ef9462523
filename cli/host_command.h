// vexa host list, vexa host show, vexa guest info.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

ExitCode RunHostList(const GlobalOptions& global);

// `host` is an id or a name; empty: the host that answers.
ExitCode RunHostShow(const GlobalOptions& global, const std::string& host);

ExitCode RunGuestInfo(const GlobalOptions& global, const std::string& guest);

}  // namespace vexa::cli
