// vexa user add, passwd, group, del, list and vexa group list, del: the accounts of the cluster, through the API.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "cli/client_options.h"
#include "cli/password.h"
#include "host/base/result.h"

namespace vexa::cli {

struct NewUserOptions {
  std::string name;
  std::vector<std::string> groups;
  std::optional<std::uint32_t> uid;
  PasswordSource password = PasswordSource::kTerminal;
  bool advanced = false;
};

// Options that no server would accept are a usage error; nothing is sent then.
ExitCode RunUserAdd(const GlobalOptions& global, const NewUserOptions& options);
// Without a user, sets the caller's own password, which requires the old one.
ExitCode RunUserPasswd(const GlobalOptions& global, const std::optional<std::string>& user, PasswordSource source);
// Replaces the user's groups.
ExitCode RunUserGroup(const GlobalOptions& global, const std::string& name, const std::vector<std::string>& groups);
// Also deletes the user's grants.
ExitCode RunUserDel(const GlobalOptions& global, const std::string& name);
ExitCode RunUserList(const GlobalOptions& global);

ExitCode RunGroupList(const GlobalOptions& global);
// Deletes a group without members, and its grants.
ExitCode RunGroupDel(const GlobalOptions& global, const std::string& name);

// kInvalid for a name, groups or an id that no user can have.
Status CheckNewUser(const NewUserOptions& options);
// Asks for a new password that accounts accept; failures are printed.
ExitCode AskNewPassword(PasswordSource source, const std::string& prompt, std::string& password);

// Calls a method of VEXA.Core.Account. Failures are printed, with a hint if nothing listens on the Unix socket.
CallOutcome CallAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                        Secrecy secrecy = Secrecy::kPlain);
// The same, and prints `confirmation`, a sentence, on success.
ExitCode ChangeAccount(const GlobalOptions& global, const char* method, const Json::Value& parameters,
                       const std::string& confirmation, Secrecy secrecy = Secrecy::kPlain);

}  // namespace vexa::cli
