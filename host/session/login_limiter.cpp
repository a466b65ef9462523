#include "host/session/login_limiter.h"

#include <algorithm>

#include "host/accounts/accounts.h"
#include "host/base/mutex.h"
#include "host/base/peer_network.h"
#include "host/session/token_buckets.h"

namespace vexa::session {
namespace {

// The accounts treat different spellings of a name as one. "" for all invalid names.
std::string UserKey(const std::string& user) {
  return accounts::IsValidAccountName(user) ? accounts::LowerCaseName(user) : std::string();
}

TokenBuckets MakeBuckets(const BucketOptions& options, std::size_t max_entries) {
  return {options.burst, options.refill.count(), max_entries};
}

}  // namespace

class LoginLimiter::Impl {
 public:
  explicit Impl(const LoginLimiterOptions& options)
      : now_(options.now),
        pairs_(MakeBuckets(options.pair, options.max_entries)),
        addresses_(MakeBuckets(options.address, options.max_entries)),
        names_(MakeBuckets(options.name, options.max_entries)) {
    if (now_) return;
    now_ = [] {
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      return std::int64_t{std::chrono::duration_cast<std::chrono::milliseconds>(now).count()};
    };
  }

  std::chrono::milliseconds TakeToken(const LoginAttempt& attempt) {
    const Keys keys(attempt);
    const MutexLock lock(mutex_);
    const std::int64_t now = now_();
    std::int64_t wait = pairs_.WaitTime(keys.pair, now);
    if (!attempt.is_known) {
      wait = std::max({wait, addresses_.WaitTime(keys.address, now), names_.WaitTime(keys.name, now)});
    }
    if (wait > 0) return std::chrono::milliseconds(wait);
    pairs_.Take(keys.pair, now);
    if (!attempt.is_known) {
      addresses_.Take(keys.address, now);
      names_.Take(keys.name, now);
    }
    return std::chrono::milliseconds(0);
  }

  void ReturnToken(const LoginAttempt& attempt) {
    const Keys keys(attempt);
    const MutexLock lock(mutex_);
    const std::int64_t now = now_();
    pairs_.Return(keys.pair, now);
    if (attempt.is_known) return;
    addresses_.Return(keys.address, now);
    names_.Return(keys.name, now);
  }

 private:
  struct Keys {
    explicit Keys(const LoginAttempt& attempt)
        : address(PeerNetwork(attempt.peer)), name(UserKey(attempt.user)), pair(name + " " + address) {}
    const std::string address;
    const std::string name;
    const std::string pair;  // valid names have no space
  };

  std::function<std::int64_t()> now_;
  Mutex mutex_;
  TokenBuckets pairs_ VEXA_GUARDED_BY(mutex_);
  TokenBuckets addresses_ VEXA_GUARDED_BY(mutex_);
  TokenBuckets names_ VEXA_GUARDED_BY(mutex_);
};

LoginLimiter::LoginLimiter(const LoginLimiterOptions& options) : impl_(std::make_unique<Impl>(options)) {}
LoginLimiter::~LoginLimiter() = default;

std::chrono::milliseconds LoginLimiter::TakeToken(const LoginAttempt& attempt) { return impl_->TakeToken(attempt); }
void LoginLimiter::ReturnToken(const LoginAttempt& attempt) { impl_->ReturnToken(attempt); }

}  // namespace vexa::session
