#include "host/session/login_limiter.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <list>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/mutex.h"

namespace vexa::session {
namespace {

// Token buckets by key. A bucket is stored as the time at which it will be full: each missing token delays that by
// `refill`.
class Buckets {
 public:
  explicit Buckets(const LoginLimiterOptions& options)
      : refill_(std::max<std::int64_t>(0, options.refill.count())),
        max_deficit_(refill_ * (std::max(1, options.burst) - 1)),
        max_entries_(std::max<std::size_t>(1, options.max_entries)) {}

  // How long until a token is available; 0 if there is one.
  std::int64_t WaitTime(const std::string& key, std::int64_t now) {
    const auto found = by_key_.find(key);
    if (found == by_key_.end()) return 0;
    MarkMostRecent(found->second);
    return std::max<std::int64_t>(0, found->second->full_at - now - max_deficit_);
  }

  void Take(const std::string& key, std::int64_t now) {
    const auto found = by_key_.find(key);
    if (found != by_key_.end()) {
      MarkMostRecent(found->second);
      found->second->full_at = std::max(found->second->full_at, now) + refill_;
      return;
    }
    if (entries_.size() >= max_entries_) {
      by_key_.erase(entries_.back().key);
      entries_.pop_back();
    }
    entries_.push_front({key, now + refill_});
    by_key_[key] = entries_.begin();
  }

  // Does nothing for a bucket that has been evicted meanwhile, which counts as full.
  void Return(const std::string& key) {
    const auto found = by_key_.find(key);
    if (found != by_key_.end()) found->second->full_at -= refill_;
  }

 private:
  struct Entry {
    std::string key;
    std::int64_t full_at = 0;
  };
  using Position = std::list<Entry>::iterator;

  void MarkMostRecent(Position position) { entries_.splice(entries_.begin(), entries_, position); }

  const std::int64_t refill_;
  const std::int64_t max_deficit_;  // the longest time until full at which a bucket still has a token
  const std::size_t max_entries_;
  std::list<Entry> entries_;  // the most recently used first
  std::unordered_map<std::string, Position> by_key_;
};

// An IPv4 address, also if mapped into IPv6, or the /64 of an IPv6 address.
std::string PeerKey(const std::string& peer) {
  in6_addr address{};
  if (peer.find('\0') != std::string::npos || ::inet_pton(AF_INET6, peer.c_str(), &address) != 1) return peer;
  if (IN6_IS_ADDR_V4MAPPED(&address)) {
    char text[INET_ADDRSTRLEN] = {};
    return ::inet_ntop(AF_INET, address.s6_addr + 12, text, sizeof(text)) == nullptr ? peer : text;
  }
  return std::string(reinterpret_cast<const char*>(address.s6_addr), 8) + "/64";
}

// "" for all invalid names.
std::string UserKey(const std::string& user) { return accounts::IsValidAccountName(user) ? user : std::string(); }

}  // namespace

class LoginLimiter::Impl {
 public:
  explicit Impl(const LoginLimiterOptions& options) : now_(options.now), peers_(options), users_(options) {
    if (now_) return;
    now_ = [] {
      const auto now = std::chrono::steady_clock::now().time_since_epoch();
      return std::int64_t{std::chrono::duration_cast<std::chrono::milliseconds>(now).count()};
    };
  }

  std::chrono::milliseconds TakeToken(const std::string& peer, const std::string& user) {
    const MutexLock lock(mutex_);
    const std::int64_t now = now_();
    const std::int64_t wait = std::max(peers_.WaitTime(peer, now), users_.WaitTime(user, now));
    if (wait > 0) return std::chrono::milliseconds(wait);
    peers_.Take(peer, now);
    users_.Take(user, now);
    return std::chrono::milliseconds(0);
  }

  void ReturnToken(const std::string& peer, const std::string& user) {
    const MutexLock lock(mutex_);
    peers_.Return(peer);
    users_.Return(user);
  }

 private:
  std::function<std::int64_t()> now_;
  Mutex mutex_;
  Buckets peers_ VEXA_GUARDED_BY(mutex_);
  Buckets users_ VEXA_GUARDED_BY(mutex_);
};

LoginLimiter::LoginLimiter(const LoginLimiterOptions& options) : impl_(std::make_unique<Impl>(options)) {}
LoginLimiter::~LoginLimiter() = default;

std::chrono::milliseconds LoginLimiter::TakeToken(const std::string& peer, const std::string& user) {
  return impl_->TakeToken(PeerKey(peer), UserKey(user));
}

void LoginLimiter::ReturnToken(const std::string& peer, const std::string& user) {
  impl_->ReturnToken(PeerKey(peer), UserKey(user));
}

}  // namespace vexa::session
