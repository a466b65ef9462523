// How a connection ends.
#include <utility>

#include "host/http/http_connection.h"
#include "host/http/http_io_thread.h"

namespace vexa::http {
namespace {

using boost::system::error_code;

// How much is still read and discarded after the last response, and for how long.
constexpr std::size_t kLingerBytes = std::size_t{8} * 1024 * 1024;
constexpr std::chrono::milliseconds kDrainTime{2'000};
constexpr int kReadsPerEvent = 16;

}  // namespace

void Connection::OnDeadline() {
  switch (phase_) {
    case Phase::kHeader:
      if (header_started_) {
        NewRequest();
        return Refuse(408);
      }
      transport_.ShutdownWrite();
      return Close();
    case Phase::kBody:
      return Refuse(408);
    default:
      return Close();
  }
}

void Connection::BeginStop() {
  if (phase_ == Phase::kTunnel) return tunnel_->Close(TunnelClose::kGoingAway);
  // Bytes that the client has already sent count as the start of a request.
  if (phase_ == Phase::kHeader && !header_started_) ReadInput();
  if (phase_ == Phase::kHandshake) Close();
  if (phase_ == Phase::kHeader && !header_started_) {
    transport_.ShutdownWrite();
    Close();
  }
}

void Connection::ReportDrained() {
  if (!std::exchange(drained_reported_, true)) io_.ConnectionDrained();
}

void Connection::Close() {
  if (phase_ == Phase::kClosed) return;
  const std::shared_ptr<Connection> self = shared_from_this();
  ReportDrained();
  io_.ReleaseSlot(slot_);
  phase_ = Phase::kClosed;
  deadline_ = Clock::time_point::max();
  error_code ignored;
  socket_.close(ignored);
  if (tunnel_) std::exchange(tunnel_, nullptr)->Abandon();
  place_.reset();
  parser_.reset();
}

void Connection::StartLinger() {
  phase_ = Phase::kLinger;
  ReportDrained();
  transport_.ShutdownWrite();
  if (peer_ended_) return Close();
  SetDeadline(kDrainTime);
  ArmRead();
}

void Connection::Linger() {
  auto& scratch = io_.read_scratch();
  for (int i = 0; i < kReadsPerEvent; ++i) {
    const IoResult result = transport_.Discard(scratch.data(), scratch.size());
    lingered_bytes_ += result.bytes;
    if (result.state == IoState::kWantRead) break;
    if (result.state != IoState::kDone || lingered_bytes_ > kLingerBytes) return Close();
  }
  ArmRead();
}

}  // namespace vexa::http
