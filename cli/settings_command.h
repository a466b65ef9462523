// vexa cluster settings, vexa host edit.
#pragma once

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// Each is "on", "off", or "" to leave the setting as it is.
struct ClusterSettingsOptions {
  std::string auto_select_host;
  std::string upgrading;
};

// Changes what is given, and prints the settings.
ExitCode RunClusterSettings(const GlobalOptions& global, const ClusterSettingsOptions& options);

struct HostEditOptions {
  std::string host;       // an id or a name
  std::string name;       // the new one; "" leaves it
  std::string placement;  // "on", "off" or "" to leave it
};

ExitCode RunHostEdit(const GlobalOptions& global, const HostEditOptions& options);

}  // namespace vexa::cli
