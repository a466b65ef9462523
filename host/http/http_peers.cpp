#include "host/http/http_peers.h"

namespace vexa::http {

std::unique_ptr<PeerCounter::Permit> PeerCounter::Enter(const Peer& peer) {
  std::string key = peer.kind == Peer::Kind::kUnix ? "uid " + std::to_string(peer.uid) : peer.address;
  const MutexLock lock(mutex_);
  if (total_ >= max_total_) return nullptr;
  const auto found = per_peer_.find(key);
  if (found == per_peer_.end()) {
    if (max_per_peer_ == 0) return nullptr;
    per_peer_.emplace(key, 1);
  } else {
    if (found->second >= max_per_peer_) return nullptr;
    ++found->second;
  }
  ++total_;
  return std::make_unique<Permit>(shared_from_this(), std::move(key));
}

void PeerCounter::Leave(const std::string& key) {
  const MutexLock lock(mutex_);
  const auto found = per_peer_.find(key);
  if (--found->second == 0) per_peer_.erase(found);
  --total_;
}

std::size_t PeerCounter::total() const {
  const MutexLock lock(mutex_);
  return total_;
}

}  // namespace vexa::http
