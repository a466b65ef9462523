// Checks the password of a machine's user with PAM (pam(3)).
#pragma once

#include <string>

namespace vexa::accounts {

struct PasswordAnswer {
  enum class Outcome {
    kRight,
    kWrong,     // unknown user or wrong password: PAM does not distinguish the two
    kUnusable,  // the account may not be used now, for example because it or its password has expired
    kFailed,    // the password could not be checked; `cause` says why
  };
  Outcome outcome = Outcome::kFailed;
  std::string user;   // kRight only: the authenticated user; a PAM module may have changed the name
  std::string cause;  // kUnusable and kFailed
};

struct PasswordQuestion {
  std::string service;  // PAM service name
  std::string name;
  std::string password;
};

// Takes a delay that PAM sets after a wrong password. A name or password that PAM cannot take is wrong.
// `config_directory` is used instead of /etc/pam.d; "": /etc/pam.d. Threads: any, at the same time.
PasswordAnswer CheckPasswordWithPam(const PasswordQuestion& question, const std::string& config_directory);

// Overwrites the text, so that it is not found in memory later.
void Wipe(std::string& text);

}  // namespace vexa::accounts
