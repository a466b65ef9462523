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

// The owner of a session. Compare both members: a name can later belong to a new account, and an id to another name.
struct SessionUser {
  std::string name;
  std::uint32_t uid = 0;
};

struct NewSession {
  std::string token;       // 256 random bits, base64url without padding (RFC 4648), 43 characters
  std::string csrf_token;  // in the same form; a caller that uses a cookie must present it as well
};

// Sessions survive a restart. They are stored in a file (mode 0600, replaced atomically) that contains SHA-256 hashes
// of the tokens, never the tokens themselves:
//   {"version": 1, "sessions": [{"hash": "…", "csrf_hash": "…", "user": "alice", "uid": 1026, "created": 1,
//                                "last_used": 1}]}
// Hashes are base64url without padding, times are Unix seconds. Every write saves the times of last use, but only Sweep
// writes the file just for them. Sessions without "uid", which older versions wrote, are ignored.
//
// Clock jumps: negative ages count as zero, creation times in the future as now; the last use never goes back; expired
// sessions stay expired.
//
// Threads: any, at the same time; Find and CheckCsrf never wait for a write of the file.
class SessionTable {
 public:
  // Loads the file; a missing file is an empty table. Errors: kCorrupt when the file is damaged; kDenied when it is not
  // private (its mode permits access by others, it is a symbolic link, or neither this process's user nor root owns
  // it); the errors of reading a file.
  static Result<std::unique_ptr<SessionTable>> Open(const std::string& path, const SessionOptions& options);
  ~SessionTable();

  // Returns once the session is in the file.
  // Errors: kInvalid when `user.name` is not a valid user name; kBusy when there are max_sessions already; the errors
  // of writing the file. After an error there is no new session, and no older session has been ended.
  Result<NewSession> Create(const SessionUser& user);

  // Returns the user of a live session and records a use of it. Not set for an unknown, expired or malformed token.
  std::optional<SessionUser> Find(std::string_view token);

  // Whether the token belongs to a live session. Does not count as a use of it.
  bool IsLive(std::string_view token) const;

  // Whether `csrf_token` belongs to the session of `token`, compared in constant time.
  bool CheckCsrf(std::string_view token, std::string_view csrf_token) const;

  // Ends the session and removes it from the file; false if there was no live session. If the file cannot be written,
  // the session has ended nevertheless, and the next successful write by Create, End or Sweep removes it. Until then, a
  // restart would bring it back.
  bool End(std::string_view token);
  // Ends all sessions of a user name, as End does, and returns how many were live.
  std::size_t EndAllOfUser(const std::string& user);

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
