// A connection's place among all connections of the server: what it is used for and how much memory it occupies.
#include <utility>

#include "host/http/http_connection.h"
#include "host/http/http_io_thread.h"

namespace vexa::http {
namespace {

// A request or response that has not moved on for this long counts as idle.
constexpr std::chrono::seconds kStalledAfter{2};
constexpr std::chrono::seconds kOwnerCheckInterval{5};
// Less than this is not worth counting.
constexpr std::size_t kMinHeldBytes = 1024;

}  // namespace

// False: the place was lost before the connection began.
bool Connection::ClaimPlace() {
  return place_->SetOnEvict([&io = io_, connection = weak_from_this()](EvictionReason reason) {
    io.Post([connection, reason] {
      if (const std::shared_ptr<Connection> alive = connection.lock()) alive->OnEvicted(reason);
    });
  });
}

void Connection::OnEvicted(EvictionReason reason) {
  if (reason == EvictionReason::kMemory && phase_ == Phase::kBody) {
    RefuseAsBusy();
    return ReportState();
  }
  if (transport_.is_established()) transport_.ShutdownWrite();
  Close();
}

ConnectionActivity Connection::Activity() const {
  if (phase_ == Phase::kHandler) return ConnectionActivity::kAnswers;
  // However little moves: the handler bounds how many a client has.
  if (phase_ == Phase::kTunnel) return ConnectionActivity::kTransfers;
  const bool transfers = phase_ == Phase::kBody || phase_ == Phase::kWrite;
  const bool is_stalled = Clock::now() - progress_at_ >= kStalledAfter;
  return transfers && !is_stalled ? ConnectionActivity::kTransfers : ConnectionActivity::kIdle;
}

// Bodies that are shared do not count.
std::size_t Connection::HeldBytes() const {
  if (phase_ == Phase::kClosed) return 0;
  const std::size_t request = parser_ ? header_bytes_ + parser_->request().body.capacity() : 0;
  const std::size_t bytes = buffer_.capacity() + request + out_header_.capacity() + out_body_.own.capacity();
  return bytes < kMinHeldBytes ? 0 : bytes;
}

// Called after every event. Most requests are answered within one or two, so this rarely finds a change.
void Connection::ReportState() {
  if (place_ == nullptr) return;
  if (const ConnectionActivity activity = Activity(); activity != activity_) {
    activity_ = activity;
    place_->SetActivity(activity);
  }
  if (const std::size_t held = HeldBytes(); held != held_bytes_) {
    held_bytes_ = held;
    place_->SetHeldBytes(held);
  }
}

void Connection::SetOwner(const Owner& owner) {
  if (place_ == nullptr) return;
  place_->SetOwner(owner);
  is_owner_current_ = owner.is_current;
  check_owner_at_ = is_owner_current_ ? Clock::now() + kOwnerCheckInterval : Clock::time_point::max();
}

void Connection::CheckOwner(Clock::time_point now) {
  if (now < check_owner_at_) return;
  check_owner_at_ = now + kOwnerCheckInterval;
  if (!is_owner_current_()) SetOwner(Owner());
}

void Connection::OnSweep(Clock::time_point now) {
  if (now >= deadline_) OnDeadline();
  if (phase_ == Phase::kClosed) return;
  if (phase_ == Phase::kTunnel) tunnel_->OnSweep(now);
  if (phase_ == Phase::kClosed) return;
  CheckOwner(now);
  ReportState();
}

}  // namespace vexa::http
