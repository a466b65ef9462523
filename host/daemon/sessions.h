// Login sessions: random tokens, kept only as hashes.
#pragma once

#include <chrono>
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
  std::size_t max_sessions_per_user = 100;  // a further login ends the user's oldest one
};

struct NewSession {
  std::string token;       // 256 random bits, base64url without padding (RFC 4648), 43 characters
  std::string csrf_token;  // the same shape; a cookie caller must show it as well
};

// Sessions survive a restart: they are kept in a file (0600, replaced atomically) that holds SHA-256 hashes of the
// tokens, never the tokens. Last use is written at most once a minute.
// Threads: any, at the same time; Find takes no lock that a file write holds.
class SessionTable {
 public:
  // An unreadable or damaged file is an error (kCorrupt, kDenied); a missing one starts an empty table.
  static Result<std::unique_ptr<SessionTable>> Open(const std::string& path, const SessionOptions& options);
  ~SessionTable();

  // kBusy when max_sessions are in use.
  Result<NewSession> Create(const std::string& user);

  // The user of a live session, and counts as a use of it. Empty for an unknown, expired or malformed token.
  std::optional<std::string> Find(std::string_view token);

  // Whether `csrf_token` belongs to the session of `token`, compared in constant time.
  bool CheckCsrf(std::string_view token, std::string_view csrf_token) const;

  // Ends the session; true when there was one.
  bool End(std::string_view token);
  // Ends all sessions of a user and returns how many there were.
  std::size_t EndAllOf(const std::string& user);

  // Drops what has expired and writes last uses; call it about once a minute, and before the process ends.
  Status Sweep();

  std::size_t size() const;

 private:
  class Impl;
  explicit SessionTable(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
