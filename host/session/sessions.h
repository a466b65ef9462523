// Login sessions. A session is identified by a random token, of which only the hash is stored.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "host/base/result.h"

namespace vexa::session {

struct SessionOptions {
  std::chrono::seconds idle{30 * 60};           // a session ends after this long without use
  std::chrono::seconds absolute{12 * 60 * 60};  // and this long after the login
  std::size_t max_sessions = 100'000;
  std::size_t max_sessions_per_user = 100;  // one more login ends the user's oldest session
  // The time in Unix seconds; time(2) if empty. Called on any thread; must not call the table.
  std::function<std::int64_t()> now;
};

// The account that a session is bound to. Compare all members: a name can later belong to a new account, an id to
// another name, and the stamp changes with the password (accounts::User).
struct SessionUser {
  std::string name;
  std::uint32_t uid = 0;
  std::string stamp = {};
};

struct NewSession {
  std::string token;       // 256 random bits, base64url without padding (RFC 4648), 43 characters
  std::string csrf_token;  // in the same form; a caller that uses a cookie must present it as well
};

struct SessionInfo {
  std::string id;  // SessionId: identifies the session, but cannot be used to log in
  SessionUser user;
  std::string from;            // the address of the login; empty when unknown
  std::int64_t created = 0;    // Unix seconds
  std::int64_t last_used = 0;  // Unix seconds
};

struct EndResult {
  std::size_t ended = 0;  // live sessions
  // An error of writing the file: the sessions have ended nevertheless, and the next successful write removes them from
  // the file. Until then, a restart would bring them back.
  Status stored = {};
};

// Sessions, and the addresses that users have logged in from, survive a restart. They are stored in a file (mode 0600,
// replaced atomically) that contains SHA-256 hashes of the tokens, never the tokens themselves:
//   {"version": 2, "sessions": [{"hash": "…", "csrf_hash": "…", "user": "alice", "uid": 1026, "stamp": "…",
//                                "from": "192.0.2.1", "created": 1, "last_used": 1}],
//    "addresses": [{"user": "alice", "network": "192.0.2.1"}]}
// Hashes are base64url without padding, times are Unix seconds. Every write saves the times of last use, but only Sweep
// writes the file just for them. The sessions of version 1, which older versions wrote, have no stamps and are ended.
//
// Clock jumps: negative ages count as zero, creation times in the future as now; the last use never goes back; expired
// sessions stay expired.
//
// Threads: any, at the same time. Find, CheckCsrf, List and IsKnownAddress never wait for a write of the file.
class SessionTable {
 public:
  // Loads the file; a missing file is an empty table. Errors: kCorrupt when the file is damaged; kDenied when it is not
  // private (its mode permits access by others, it is a symbolic link, or neither this process's user nor root owns
  // it); the errors of reading a file.
  static Result<std::unique_ptr<SessionTable>> Open(const std::string& path, const SessionOptions& options);
  ~SessionTable();

  // Begins a session for a user whose password was right. `from` is the address of the caller, which becomes a known
  // address of the user. Returns once both are in the file.
  // Errors: kInvalid when `user` has a name or a stamp that none can have; kBusy when there are max_sessions already;
  // the errors of writing the file. After an error there is no new session, and no older session has been ended.
  Result<NewSession> Create(const SessionUser& user, const std::string& from = "");

  // Whether the user has logged in before from an address of the same network (PeerNetwork).
  bool IsKnownAddress(const std::string& user, const std::string& address) const;

  // Returns the user of a live session and records a use of it. Not set for an unknown, expired or malformed token.
  // The caller has to compare it with the account as it is now.
  std::optional<SessionUser> Find(std::string_view token);

  // Whether the token belongs to a live session. Does not count as a use of it.
  bool IsLive(std::string_view token) const;

  // While a session changes the password of its own user, it belongs to the account as it was and as it will be:
  // AcceptStamp before the account changes; EndAllOfUser, with that session as the exception, afterwards, or
  // RefuseStamp when it has not changed. kBusy when the session accepts another stamp already: it is changing the
  // password twice at the same time. A token without a session is ignored.
  Status AcceptStamp(std::string_view token, const std::string& new_stamp);
  void RefuseStamp(std::string_view token, const std::string& new_stamp);
  // Whether the token belongs to a live session with this stamp, or one that accepts it. Does not count as a use of it.
  bool HasStamp(std::string_view token, const std::string& stamp) const;

  // Whether `csrf_token` belongs to the session of `token`, compared in constant time.
  bool CheckCsrf(std::string_view token, std::string_view csrf_token) const;

  // The live sessions of one user name or, without one, of all users; the oldest first. Their accounts may have
  // changed since, so that they cannot be used any more.
  std::vector<SessionInfo> List(const std::optional<std::string>& user = std::nullopt) const;

  // Each ends sessions and removes them from the file.
  EndResult End(std::string_view token);
  // The session with this id, if `owner` is its user or is not set.
  EndResult EndById(std::string_view id, const std::optional<SessionUser>& owner);
  // All sessions of a user name. The session of the token `except` stays and gets the stamp `new_stamp`: it has changed
  // its own user's password.
  EndResult EndAllOfUser(const std::string& user, std::string_view except = {}, const std::string& new_stamp = "");
  // The same for a user who has been deleted, and forgets the user's known addresses. Writes the file for these alone
  // as well.
  EndResult ForgetUser(const std::string& user);

  // Removes expired sessions and writes the times of last use. Call it about once a minute, and before the process
  // ends. After an error of writing the file, the next write includes the changes.
  Status Sweep();

  // The number of sessions, including sessions that have expired since the last Sweep.
  std::size_t size() const;

 private:
  class Impl;
  explicit SessionTable(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::session
