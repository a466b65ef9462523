// Counts the connections of a server and decides which one has to go when room or memory is short.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>

#include "host/base/mutex.h"
#include "host/http/http_held_bytes.h"
#include "host/http/http_ranking.h"
#include "host/http/http_server.h"

namespace vexa::http {

// In the order in which connections have to go.
enum class ConnectionClass { kStranger, kUser, kHost, kLocal };

enum class ConnectionActivity {
  kIdle,       // waits for a request, shakes hands, or makes no progress
  kTransfers,  // has a request that arrives, or a response that is being sent: as slowly as the client likes
  kAnswers,    // has a request that is being answered, which the client cannot prolong
};

enum class EvictionReason {
  kRoom,    // another connection needs the place, which is no longer this one's
  kMemory,  // the peer holds too much with unfinished bodies and unread responses
};

class ConnectionTable;

// The place of one connection, from its acceptance to its end. Threads: any.
class ConnectionPlace {
 public:
  explicit ConnectionPlace(std::shared_ptr<ConnectionTable> table) : table_(std::move(table)) {}
  ~ConnectionPlace();
  ConnectionPlace(const ConnectionPlace&) = delete;
  ConnectionPlace& operator=(const ConnectionPlace&) = delete;

  // `on_evict` is called when the connection has to go, on any thread and under the table's lock: it must only hand
  // this on. False: the place has been lost already.
  bool SetOnEvict(std::function<void(EvictionReason)> on_evict);
  void SetActivity(ConnectionActivity activity);
  // The connection counts for `owner` from now on. Those of a Unix socket always count for the peer's user id. When the
  // owner has as many connections as allowed, its oldest idle one goes; when it has no idle one, this one remains a
  // stranger's.
  void SetOwner(const Owner& owner);
  // How many bytes the connection occupies with what has arrived or waits to be sent.
  void SetHeldBytes(std::size_t bytes);

 private:
  friend class ConnectionTable;

  const std::shared_ptr<ConnectionTable> table_;
  // Guarded by the table's mutex:
  std::string peer_;   // the network or user id
  std::string group_;  // what the class's connections are grouped by: the peer, the user, the host
  ConnectionClass class_ = ConnectionClass::kStranger;
  ConnectionActivity activity_ = ConnectionActivity::kIdle;
  std::uint64_t number_ = 0;  // the lowest one of a group goes first
  std::size_t held_ = 0;
  std::uint64_t held_number_ = 0;
  bool evicted_ = false;  // no longer counted
  std::function<void(EvictionReason)> on_evict_;
};

// When all places are taken, a new connection gets that of a stranger: an idle one, the oldest of the network with the
// most idle connections. Strangers are idle unless a request of theirs is being answered, because they could transfer a
// byte now and then to keep everybody else out; their age counts from their acceptance for the same reason. When all
// requests of strangers are being answered, a connection of the Unix socket gets the place of one, and a stranger that
// of a network with more of them than its own. Each class is guaranteed a share of the places: one that has fewer than
// that gets places of any class that has more.
// Threads: any.
class ConnectionTable : public std::enable_shared_from_this<ConnectionTable> {
 public:
  explicit ConnectionTable(const ServerLimits& limits);

  // Null when there is no place for this peer. TCP peers count as one with all others of their network (PeerNetwork),
  // those of a Unix socket with all others of their user id.
  std::unique_ptr<ConnectionPlace> Enter(const Peer& peer);

  std::size_t total() const;
  std::uint64_t evicted() const;

 private:
  friend class ConnectionPlace;
  static constexpr std::size_t kClasses = 4;

  static std::size_t Index(ConnectionClass kind) { return static_cast<std::size_t>(kind); }
  std::size_t GuaranteedTo(ConnectionClass kind) const;
  Ranking& IdleOf(ConnectionClass kind) VEXA_REQUIRES(mutex_) { return idle_[Index(kind)]; }
  Ranking& BusyOf(ConnectionClass kind) VEXA_REQUIRES(mutex_) { return busy_[Index(kind)]; }
  Ranking& RankingOf(const ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  std::size_t ConnectionsOfPeer(const ConnectionPlace& place) const VEXA_REQUIRES(mutex_);
  HeldBytes& HeldBy(ConnectionClass kind) VEXA_REQUIRES(mutex_);
  bool MayTakeFrom(ConnectionClass victim, ConnectionClass taker) const VEXA_REQUIRES(mutex_);
  bool MakeRoomForPeer(const ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  bool MakeRoom(const ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  bool MakeRoomForOwner(ConnectionClass kind, const std::string& group) VEXA_REQUIRES(mutex_);
  bool Evict(ConnectionPlace* place) VEXA_REQUIRES(mutex_);
  void Insert(ConnectionPlace& place, std::uint64_t number) VEXA_REQUIRES(mutex_);
  void TakeOut(ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  void Remove(ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  void Hold(ConnectionPlace& place, std::size_t bytes) VEXA_REQUIRES(mutex_);
  void FreeMemory(ConnectionPlace& place) VEXA_REQUIRES(mutex_);
  bool EndHolding(ConnectionPlace* place) VEXA_REQUIRES(mutex_);
  void Leave(ConnectionPlace& place);

  const ServerLimits limits_;
  mutable Mutex mutex_;
  std::array<Ranking, kClasses> idle_ VEXA_GUARDED_BY(mutex_);
  std::array<Ranking, kClasses> busy_ VEXA_GUARDED_BY(mutex_);
  std::array<std::size_t, kClasses> counts_ VEXA_GUARDED_BY(mutex_) = {};
  std::unordered_map<std::string, std::size_t> per_peer_ VEXA_GUARDED_BY(mutex_);
  HeldBytes held_by_strangers_ VEXA_GUARDED_BY(mutex_);
  HeldBytes held_by_others_ VEXA_GUARDED_BY(mutex_);
  std::size_t total_ VEXA_GUARDED_BY(mutex_) = 0;
  std::size_t closing_ VEXA_GUARDED_BY(mutex_) = 0;  // evicted, but their descriptors are still open
  std::uint64_t evicted_ VEXA_GUARDED_BY(mutex_) = 0;
  std::uint64_t last_number_ VEXA_GUARDED_BY(mutex_) = 0;
};

}  // namespace vexa::http
