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
  int burst = 10;                          // failures at once, per peer and per user name
  std::chrono::milliseconds refill{3000};  // one more failure is allowed after this long
  std::size_t max_entries = 4096;  // of peers, and as many of names; the least recently used are forgotten first
  // Milliseconds of a clock that never goes back; the steady clock when empty. Any thread; must not call the limiter.
  std::function<std::int64_t()> now;
};

// Token buckets per peer address and per user name. Only failures use tokens up.
// The IPv6 addresses of one /64 are one peer: whoever has one of them has all. Names that no user can have are one
// name.
// Threads: any, at the same time.
class LoginLimiter {
 public:
  explicit LoginLimiter(const LoginLimiterOptions& options);
  ~LoginLimiter();

  // Takes a token of both buckets before a password is checked. Zero: go on. Otherwise: how long to wait; nothing was
  // taken.
  std::chrono::milliseconds Begin(const std::string& peer, const std::string& user);
  // The password was right: gives the tokens back.
  void Succeeded(const std::string& peer, const std::string& user);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::daemon
