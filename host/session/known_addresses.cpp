#include "host/session/known_addresses.h"

#include <algorithm>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/peer_network.h"

namespace vexa::session {

void KnownAddresses::Remember(const std::string& user, const std::string& address) {
  const std::string name = accounts::LowerCaseName(user);
  const std::string network = PeerNetwork(address);
  const MutexLock lock(mutex_);
  std::vector<Entry>& own = by_user_[name];
  count_ -= std::erase_if(own, [&](const Entry& entry) { return entry.network == network; });
  if (own.size() >= kMaxPerUser) {
    own.erase(own.begin());
    --count_;
  }
  own.push_back({network, next_order_++});
  if (++count_ > kMaxInAll) ForgetOldest();
}

bool KnownAddresses::IsKnown(const std::string& user, const std::string& address) const {
  const std::string name = accounts::LowerCaseName(user);
  const std::string network = PeerNetwork(address);
  const MutexLock lock(mutex_);
  const auto own = by_user_.find(name);
  return own != by_user_.end() &&
         std::ranges::any_of(own->second, [&](const Entry& entry) { return entry.network == network; });
}

bool KnownAddresses::Forget(const std::string& user) {
  const MutexLock lock(mutex_);
  const auto own = by_user_.find(accounts::LowerCaseName(user));
  if (own == by_user_.end()) return false;
  count_ -= own->second.size();
  by_user_.erase(own);
  return true;
}

// Looks at all users, which is rare enough.
void KnownAddresses::ForgetOldest() {
  const auto oldest =
      std::ranges::min_element(by_user_, {}, [](const auto& user) { return user.second.front().order; });
  oldest->second.erase(oldest->second.begin());
  if (oldest->second.empty()) by_user_.erase(oldest);
  --count_;
}

std::vector<KnownAddress> KnownAddresses::Snapshot() const {
  std::vector<std::pair<std::uint64_t, KnownAddress>> ordered;
  {
    const MutexLock lock(mutex_);
    ordered.reserve(count_);
    for (const auto& [user, own] : by_user_) {
      for (const Entry& entry : own) ordered.emplace_back(entry.order, KnownAddress{user, entry.network});
    }
  }
  std::ranges::sort(ordered, {}, [](const auto& entry) { return entry.first; });
  std::vector<KnownAddress> addresses;
  addresses.reserve(ordered.size());
  for (auto& entry : ordered) addresses.push_back(std::move(entry.second));
  return addresses;
}

}  // namespace vexa::session
