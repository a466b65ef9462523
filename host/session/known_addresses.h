// The addresses from which users have logged in before.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

#include "host/base/mutex.h"

namespace vexa::session {

struct KnownAddress {
  std::string user;     // in lower case
  std::string network;  // as PeerNetwork returns it
};

// Names are compared without regard to case, as those of accounts. Addresses count by PeerNetwork.
// Threads: any, at the same time.
class KnownAddresses {
 public:
  static constexpr std::size_t kMaxPerUser = 8;
  static constexpr std::size_t kMaxInAll = 10'000;

  // Call it after a login with the right password. Of more than the maximum, the address whose last login is longest
  // ago is forgotten.
  void Remember(const std::string& user, const std::string& address);
  bool IsKnown(const std::string& user, const std::string& address) const;
  // Whether there were any.
  bool Forget(const std::string& user);

  // The one whose last login is longest ago comes first; remembering them in this order restores them.
  std::vector<KnownAddress> Snapshot() const;

 private:
  struct Entry {
    std::string network;
    std::uint64_t order = 0;  // of the last login, ascending
  };
  void ForgetOldest() VEXA_REQUIRES(mutex_);

  mutable Mutex mutex_;
  std::unordered_map<std::string, std::vector<Entry>> by_user_ VEXA_GUARDED_BY(mutex_);  // each list: oldest first
  std::size_t count_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t next_order_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace vexa::session
