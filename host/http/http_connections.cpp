#include "host/http/http_connections.h"

#include <utility>

#include "host/base/peer_network.h"

namespace vexa::http {
namespace {

// More are not evicted before some of them are closed, because their descriptors are still open. Strangers, who may
// come in floods, must not use up what the others need.
constexpr std::size_t kMaxClosing = 128;
constexpr std::size_t kMaxClosingForStrangers = 64;

constexpr ConnectionClass kEvictionOrder[] = {ConnectionClass::kStranger, ConnectionClass::kUser,
                                              ConnectionClass::kHost, ConnectionClass::kLocal};

// A blank keeps the keys of users, hosts and user ids apart from addresses.
std::string KeyOf(const Peer& peer) {
  return peer.kind == Peer::Kind::kUnix ? "uid " + std::to_string(peer.uid) : PeerNetwork(peer.address);
}

}  // namespace

ConnectionTable::ConnectionTable(const ServerLimits& limits) : limits_(limits) {}

// With a limit of 10,000: 2,500 for users and 625 for each of the others.
std::size_t ConnectionTable::GuaranteedTo(ConnectionClass kind) const {
  return limits_.connections / (kind == ConnectionClass::kUser ? 4 : 16);
}

Ranking& ConnectionTable::RankingOf(const ConnectionPlace& place) {
  const bool is_busy =
      place.activity_ == ConnectionActivity::kAnswers ||
      (place.activity_ == ConnectionActivity::kTransfers && place.class_ != ConnectionClass::kStranger);
  return is_busy ? BusyOf(place.class_) : IdleOf(place.class_);
}

HeldBytes& ConnectionTable::HeldBy(ConnectionClass kind) {
  return kind == ConnectionClass::kStranger ? held_by_strangers_ : held_by_others_;
}

std::unique_ptr<ConnectionPlace> ConnectionTable::Enter(const Peer& peer) {
  auto place = std::make_unique<ConnectionPlace>(shared_from_this());
  const MutexLock lock(mutex_);
  place->evicted_ = true;  // until it is counted
  place->peer_ = KeyOf(peer);
  place->group_ = place->peer_;
  place->class_ = peer.kind == Peer::Kind::kUnix ? ConnectionClass::kLocal : ConnectionClass::kStranger;
  if (!MakeRoomForPeer(*place)) return nullptr;
  if (total_ >= limits_.connections && !MakeRoom(*place)) return nullptr;
  std::size_t& of_peer = per_peer_[place->peer_];
  Insert(*place, ++last_number_);
  ++of_peer;
  ++total_;
  place->evicted_ = false;
  return place;
}

std::size_t ConnectionTable::ConnectionsOfPeer(const ConnectionPlace& place) const {
  const auto found = per_peer_.find(place.peer_);
  return found == per_peer_.end() ? 0 : found->second;
}

bool ConnectionTable::MakeRoomForPeer(const ConnectionPlace& place) {
  const std::size_t count = ConnectionsOfPeer(place);
  if (count < limits_.connections_per_peer) return true;
  return count > 0 && Evict(IdleOf(place.class_).OldestOf(place.peer_));
}

// Whether a class may take a place of another one.
bool ConnectionTable::MayTakeFrom(ConnectionClass victim, ConnectionClass taker) const {
  if (victim == taker || counts_[Index(victim)] <= GuaranteedTo(victim)) return false;
  return victim == ConnectionClass::kStranger || counts_[Index(taker)] < GuaranteedTo(taker);
}

bool ConnectionTable::MakeRoom(const ConnectionPlace& place) {
  const ConnectionClass taker = place.class_;
  const bool is_stranger = taker == ConnectionClass::kStranger;
  if (is_stranger && closing_ >= kMaxClosingForStrangers) return false;
  for (const ConnectionClass victim : kEvictionOrder) {
    if (MayTakeFrom(victim, taker) && Evict(IdleOf(victim).OldestOfLargest())) return true;
  }
  for (const ConnectionClass victim : kEvictionOrder) {
    if (!is_stranger && MayTakeFrom(victim, taker) && Evict(BusyOf(victim).OldestOfLargest())) return true;
  }
  if (Evict(IdleOf(taker).OldestOfLargest())) return true;
  // Only from a network that keeps at least as many: otherwise callers could end each other's requests in turns.
  const Ranking& busy = BusyOf(taker);
  return is_stranger && busy.SizeOfLargest() > ConnectionsOfPeer(place) + 1 && Evict(busy.OldestOfLargest());
}

bool ConnectionTable::Evict(ConnectionPlace* place) {
  if (place == nullptr || closing_ >= kMaxClosing) return false;
  if (place->on_evict_) place->on_evict_(EvictionReason::kRoom);
  Remove(*place);
  place->evicted_ = true;
  ++closing_;
  ++evicted_;
  return true;
}

void ConnectionTable::Insert(ConnectionPlace& place, std::uint64_t number) {
  RankingOf(place).Add(place.group_, number, &place);
  place.number_ = number;
  ++counts_[Index(place.class_)];
}

// Undoes Insert().
void ConnectionTable::TakeOut(ConnectionPlace& place) {
  RankingOf(place).Remove(place.group_, place.number_);
  --counts_[Index(place.class_)];
}

// Undoes what Enter() counted.
void ConnectionTable::Remove(ConnectionPlace& place) {
  Hold(place, 0);
  TakeOut(place);
  const auto of_peer = per_peer_.find(place.peer_);
  if (--of_peer->second == 0) per_peer_.erase(of_peer);
  --total_;
}

void ConnectionTable::Leave(ConnectionPlace& place) {
  const MutexLock lock(mutex_);
  if (place.number_ == 0) return;  // was never counted
  if (place.evicted_) {
    --closing_;
  } else {
    Remove(place);
  }
}

bool ConnectionTable::MakeRoomForOwner(ConnectionClass kind, const std::string& group) {
  const Ranking& idle = IdleOf(kind);
  const std::size_t count = idle.SizeOf(group) + BusyOf(kind).SizeOf(group);
  return count < limits_.connections_per_owner || Evict(idle.OldestOf(group));
}

void ConnectionTable::Hold(ConnectionPlace& place, std::size_t bytes) {
  if (place.held_ == 0 && bytes != 0) place.held_number_ = ++last_number_;
  if (place.held_ != bytes) HeldBy(place.class_).Set(place.group_, place.held_number_, {&place, bytes});
  place.held_ = bytes;
}

// After `place` has begun to hold more.
void ConnectionTable::FreeMemory(ConnectionPlace& place) {
  HeldBytes& held = HeldBy(place.class_);
  while (held.BytesOf(place.group_) > limits_.held_bytes_per_owner && EndHolding(held.OldestOfSeveral(place.group_))) {
  }
  if (place.class_ != ConnectionClass::kStranger) return;
  while (held.total() > limits_.held_bytes_of_strangers && EndHolding(held.OldestOfLargest())) {
  }
}

// The connection keeps its place until it is closed.
bool ConnectionTable::EndHolding(ConnectionPlace* place) {
  if (place == nullptr) return false;
  if (place->on_evict_) place->on_evict_(EvictionReason::kMemory);
  Hold(*place, 0);
  ++evicted_;
  return true;
}

std::size_t ConnectionTable::total() const {
  const MutexLock lock(mutex_);
  return total_;
}

std::uint64_t ConnectionTable::evicted() const {
  const MutexLock lock(mutex_);
  return evicted_;
}

ConnectionPlace::~ConnectionPlace() { table_->Leave(*this); }

bool ConnectionPlace::SetOnEvict(std::function<void(EvictionReason)> on_evict) {
  const MutexLock lock(table_->mutex_);
  on_evict_ = std::move(on_evict);
  return !evicted_;
}

void ConnectionPlace::SetActivity(ConnectionActivity activity) {
  const MutexLock lock(table_->mutex_);
  if (evicted_ || activity == activity_) return;
  table_->TakeOut(*this);
  activity_ = activity;
  table_->Insert(*this, class_ == ConnectionClass::kStranger ? number_ : ++table_->last_number_);
}

void ConnectionPlace::SetOwner(const Owner& owner) {
  const MutexLock lock(table_->mutex_);
  if (evicted_ || class_ == ConnectionClass::kLocal) return;
  ConnectionClass kind = ConnectionClass::kStranger;
  std::string group = peer_;
  if (owner.kind != Owner::Kind::kStranger) {
    const bool is_user = owner.kind == Owner::Kind::kUser;
    kind = is_user ? ConnectionClass::kUser : ConnectionClass::kHost;
    group = (is_user ? "user " : "host ") + owner.name;
  }
  if (kind == class_ && group == group_) return;
  if (kind != ConnectionClass::kStranger && !table_->MakeRoomForOwner(kind, group)) {
    kind = ConnectionClass::kStranger;
    group = peer_;
  }
  const std::size_t held = held_;
  table_->Hold(*this, 0);
  table_->TakeOut(*this);
  class_ = kind;
  group_ = std::move(group);
  table_->Insert(*this, ++table_->last_number_);
  table_->Hold(*this, held);
}

void ConnectionPlace::SetHeldBytes(std::size_t bytes) {
  const MutexLock lock(table_->mutex_);
  if (evicted_) return;
  const bool grows = bytes > held_;
  table_->Hold(*this, bytes);
  if (grows) table_->FreeMemory(*this);
}

}  // namespace vexa::http
