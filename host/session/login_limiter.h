// Limits failed logins, to slow down password guessing.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vexa::session {

struct LoginLimiterOptions {
  int burst = 10;                          // failures allowed in a row, per peer and per user name
  std::chrono::milliseconds refill{3000};  // one more failure is allowed after this long
  std::size_t max_entries = 4096;  // buckets for peers, and as many for names; the least recently used is evicted
  // The time in milliseconds from a clock that never goes backwards; the steady clock if empty. Called on any thread;
  // must not call the limiter.
  std::function<std::int64_t()> now;
};

// Token buckets per peer address and per user name. Only failures use up tokens: a token is taken before each check of
// a password, and returned if the password is right.
// The IPv6 addresses of one /64 count as one peer, because a client usually controls all of them. All invalid user
// names share one bucket.
// Threads: any, at the same time.
class LoginLimiter {
 public:
  explicit LoginLimiter(const LoginLimiterOptions& options);
  ~LoginLimiter();

  // Call it before a password is checked. Takes a token from both buckets and returns zero, or takes nothing and
  // returns how long the caller has to wait.
  std::chrono::milliseconds TakeToken(const std::string& peer, const std::string& user);
  // Call it when the password is right. Returns the tokens to both buckets.
  void ReturnToken(const std::string& peer, const std::string& user);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::session
