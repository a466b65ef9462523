// Counts connections, in total and per peer.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>

#include "host/http/http_server.h"

namespace vexa::daemon {

// Threads: any.
class PeerCounter : public std::enable_shared_from_this<PeerCounter> {
 public:
  PeerCounter(std::size_t max_total, std::size_t max_per_peer) : max_total_(max_total), max_per_peer_(max_per_peer) {}

  // A place for one connection; destroying it gives the place back.
  class Place {
   public:
    Place(std::shared_ptr<PeerCounter> counter, std::string key) : counter_(std::move(counter)), key_(std::move(key)) {}
    ~Place() { counter_->Leave(key_); }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

   private:
    std::shared_ptr<PeerCounter> counter_;
    std::string key_;
  };

  // Null when this peer or the server has no place left. A TCP peer is identified by its address, a Unix peer by its
  // user id.
  std::unique_ptr<Place> Enter(const Peer& peer);

  std::size_t total() const;

 private:
  void Leave(const std::string& key);

  const std::size_t max_total_;
  const std::size_t max_per_peer_;
  mutable std::mutex mutex_;
  std::size_t total_ = 0;
  std::unordered_map<std::string, std::size_t> per_peer_;
};

}  // namespace vexa::daemon
