// What the account commands print, whether a daemon or this program has done the work.
#pragma once

#include <json/value.h>

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// A sentence on standard output, unless it is to be quiet.
ExitCode Say(const GlobalOptions& global, const std::string& sentence);

// An array of {"name", "uid", "gid", "administrator", "groups": [{"name", "gid"}]}: a table, or the array as JSON.
ExitCode PrintUsers(const GlobalOptions& global, const Json::Value& users);

// The sentences of changes that both ways share.
std::string Granted(const std::string& name);
std::string Revoked(const std::string& name);
std::string LevelIs(const std::string& name, const std::string& level);
std::string Dropped(const std::string& name);

}  // namespace vexa::cli
