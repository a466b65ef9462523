// How a host without rights checks the passwords of the machine's users: it asks the program vexa-auth, which runs as
// root, over a Unix socket. PAM's own way for processes without rights, a program with the setuid bit, checks only the
// password of the account that runs it, and the daemon's unit forbids such programs.
//
// Each connection has one question and one answer, each a packet (SOCK_SEQPACKET) of texts that are separated by NULs:
//   service NUL name NUL password   →   "right" NUL user | "wrong" | "unusable" NUL cause | "failed" NUL cause
// A question that is not of this form ends the connection without an answer.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/accounts/password_check.h"

namespace vexa::accounts {

inline constexpr char kPasswordSocket[] = "/run/vexa-auth/socket";
// Longer than PAM's delay after a wrong password, and than directories take.
inline constexpr int kPasswordTimeoutS = 30;

// kFailed when the service cannot be reached, or has no answer after `timeout_s`.
PasswordAnswer AskPasswordService(const std::string& path, const PasswordQuestion& question,
                                  int timeout_s = kPasswordTimeoutS);

struct PasswordServiceOptions {
  int listener = -1;
  // Users whose processes may ask, besides root. All others are disconnected without an answer.
  std::vector<uid_t> users;
  std::string service = "vexad";  // the only PAM service that a question may name
  std::string config_directory;   // instead of /etc/pam.d; "": /etc/pam.d
  int question_timeout_s = 5;     // for the question to arrive
  int check_timeout_s = kPasswordTimeoutS;
};

// Answers each connection in a child process of its own, so that a wrong password, a slow module or a silent client
// does not keep others waiting, and no password outlives its check. More than a few at a time wait. Returns when the
// listener is shut down. The process must have one thread.
void ServePasswordChecks(const PasswordServiceOptions& options);

}  // namespace vexa::accounts
