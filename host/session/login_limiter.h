// Limits failed logins, to slow down password guessing without locking anybody out.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace vexa::session {

// A token bucket: how many failures in a row it allows, and after how long one more.
struct BucketOptions {
  int burst;
  std::chrono::milliseconds refill;
};

struct LoginLimiterOptions {
  BucketOptions pair{10, std::chrono::milliseconds(3000)};     // of one address for one name
  BucketOptions address{50, std::chrono::milliseconds(1000)};  // of one address for all names
  BucketOptions name{100, std::chrono::milliseconds(1000)};    // for one name from all addresses
  std::size_t max_entries = 16'384;  // of each kind; then a bucket that is full or nearly so is given up first
  // The time in milliseconds from a clock that never goes backwards; the steady clock if empty. Called on any thread;
  // must not call the limiter.
  std::function<std::int64_t()> now;
};

struct LoginAttempt {
  // The address of the caller, or another text that only this caller can have, such as the id of a session.
  std::string peer;
  std::string user;  // in any case
  // The user has logged in from this address before, or the caller is already known to be the user. Guesses of others
  // do not count for such an attempt.
  bool is_known = false;
};

// Token buckets per address and name, per address, and per name. Only failures use up tokens: a token is taken before
// each check of a password, and returned if the password is right.
// Each address can take no more from a name's bucket than its own bucket for that name allows, so that a few addresses
// cannot empty it. A known attempt needs a token only of the bucket of its address and name.
// Addresses count by PeerNetwork. All invalid user names share one bucket.
// Threads: any, at the same time.
class LoginLimiter {
 public:
  explicit LoginLimiter(const LoginLimiterOptions& options);
  ~LoginLimiter();

  // Call it before a password is checked. Takes a token from each bucket and returns zero, or takes nothing and returns
  // how long the caller has to wait.
  std::chrono::milliseconds TakeToken(const LoginAttempt& attempt);
  // Call it with the same attempt when the password is right. Returns the tokens.
  void ReturnToken(const LoginAttempt& attempt);

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::session
