// Slows down password guessing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vexa::daemon {

struct LoginLimiterOptions {
  int burst = 10;                          // failures in a row, per peer and per user name
  std::chrono::milliseconds refill{3000};  // one more failure is allowed after this long
  std::size_t max_entries = 4096;          // of peers, and as many of names; the least recently used are evicted first
  // Milliseconds of a clock that never goes backwards; the steady clock when empty. Any thread; must not call the
  // limiter.
  std::function<std::int64_t()> now;
};

// Token buckets per peer address and per user name. Only failures use up tokens.
// The IPv6 addresses of one /64 count as one peer: a client with one of them has all of them. All names that no user
// can have count as one name.
// Threads: any, at the same time.
class LoginLimiter {
 public:
  explicit LoginLimiter(const LoginLimiterOptions& options);
  ~LoginLimiter();

  // Takes a token from both buckets before a password is checked. Zero: proceed. Otherwise: how long to wait; nothing
  // was taken.
  std::chrono::milliseconds Begin(const std::string& peer, const std::string& user);
  // The password was right: returns the tokens.
  void Succeeded(const std::string& peer, const std::string& user);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
