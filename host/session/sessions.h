// Login sessions: random tokens, stored only as hashes.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::daemon {

struct SessionOptions {
  std::chrono::seconds idle{30 * 60};
  std::chrono::seconds absolute{12 * 60 * 60};
  std::size_t max_sessions = 100'000;
  std::size_t max_sessions_per_user = 100;  // one more login ends the user's oldest session
  // Unix seconds; time(2) when empty. Any thread; must not call the table.
  std::function<std::int64_t()> now;
};

// The owner of a session. Both members count: a name can be given to a new account later, and an id to a new name.
struct SessionUser {
  std::string name;
  std::uint32_t uid = 0;
};

struct NewSession {
  std::string token;       // 256 random bits, base64url without padding (RFC 4648), 43 characters
  std::string csrf_token;  // the same shape; a caller with a cookie must present it as well
};

// Sessions survive a restart: they are kept in a file (0600, replaced atomically) that holds SHA-256 hashes of the
// tokens, never the tokens themselves:
//   {"version": 1, "sessions": [{"hash": "…", "csrf_hash": "…", "user": "alice", "uid": 1026, "created": 1,
//                                "last_used": 1}]}
// Hashes are base64url without padding, times are Unix seconds. Last uses are saved with every write, but only Sweep
// writes because of them. Sessions without "uid", as older versions wrote them, have ended.
//
// When the clock jumps, a negative elapsed time counts as zero, a creation in the future as now, a last use never moves
// backwards, and an expired session stays expired.
//
// Threads: any, at the same time; Find and CheckCsrf take no lock that a file write holds.
class SessionTable {
 public:
  // An unreadable or damaged file is an error: kCorrupt; kDenied when it is not private (others may use it, it is a
  // symbolic link, neither this process's user nor root owns it). A missing file starts an empty table.
  static Result<std::unique_ptr<SessionTable>> Open(const std::string& path, const SessionOptions& options);
  ~SessionTable();

  // The session is in the file before this returns.
  // kInvalid when `user.name` is not a valid user name; kBusy when max_sessions are in use; the file's error when it
  // cannot be written. After an error there is no new session, and no older one has been ended.
  Result<NewSession> Create(const SessionUser& user);

  // Returns the user of a live session and records a use of it. Empty for an unknown, expired or malformed token.
  std::optional<SessionUser> Find(std::string_view token);

  // Whether `csrf_token` belongs to the session of `token`, compared in constant time.
  bool CheckCsrf(std::string_view token, std::string_view csrf_token) const;

  // Ends the session; true when there was one. It is removed from the file before this returns. When the file cannot be
  // written, the session is over all the same, and the next successful write by Create, End or Sweep removes it. Until
  // then only a restart would bring it back.
  bool End(std::string_view token);
  // Ends all sessions of a user name, as End does, and returns how many there were.
  std::size_t EndAllOf(const std::string& user);

  // Drops expired sessions and writes last uses. Call it about once a minute, and before the process ends. An error
  // when the file cannot be written; the changes then remain to be written.
  Status Sweep();

  // Includes the sessions that have expired since the last Sweep.
  std::size_t size() const;

 private:
  class Impl;
  explicit SessionTable(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
