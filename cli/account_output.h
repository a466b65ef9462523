// The output of the account commands, the same with a daemon and with --local.
#pragma once

#include <json/value.h>

#include <string>

#include "cli/client_options.h"

namespace vexa::cli {

// An array of {"name", "uid", "gid", "administrator", "groups": [{"name", "gid"}]}: a table, or the array as JSON.
ExitCode PrintUsers(const GlobalOptions& global, const Json::Value& users);

// The sentences that confirm a change.
std::string UserAdded(const std::string& name);
std::string UserDeleted(const std::string& name);
std::string PasswordChanged(const std::string& name);
std::string GroupsChanged(const std::string& name);
std::string GrantsAdded(const std::string& name);
std::string GrantsRevoked(const std::string& name);
std::string LevelChanged(const std::string& name, const std::string& level);
std::string GrantsDropped(const std::string& name);

// kConflict: there is a user of this name.
Error UserExists(const std::string& name);

}  // namespace vexa::cli
