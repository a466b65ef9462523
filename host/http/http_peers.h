// Counts connections, in total and per peer.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/base/mutex.h"
#include "host/http/http_server.h"

namespace vexa::http {

// Threads: any.
class PeerCounter : public std::enable_shared_from_this<PeerCounter> {
 public:
  PeerCounter(std::size_t max_total, std::size_t max_per_peer) : max_total_(max_total), max_per_peer_(max_per_peer) {}

  // Permission for one connection. Counts until it is destroyed.
  class Permit {
   public:
    Permit(std::shared_ptr<PeerCounter> counter, std::string key)
        : counter_(std::move(counter)), key_(std::move(key)) {}
    ~Permit() { counter_->Leave(key_); }
    Permit(const Permit&) = delete;
    Permit& operator=(const Permit&) = delete;

   private:
    std::shared_ptr<PeerCounter> counter_;
    std::string key_;
  };

  // Null when this peer or the server has reached its limit. A TCP peer is identified by its address, a Unix peer by
  // its user id.
  std::unique_ptr<Permit> Enter(const Peer& peer);

  std::size_t total() const;

 private:
  void Leave(const std::string& key);

  const std::size_t max_total_;
  const std::size_t max_per_peer_;
  mutable Mutex mutex_;
  std::size_t total_ VEXA_GUARDED_BY(mutex_) = 0;
  std::unordered_map<std::string, std::size_t> per_peer_ VEXA_GUARDED_BY(mutex_);
};

}  // namespace vexa::http
