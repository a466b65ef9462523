#include "host/http/http_io_thread.h"

#include <pthread.h>
#include <syslog.h>

#include <boost/asio/post.hpp>
#include <exception>
#include <utility>

#include "host/base/background_thread.h"
#include "host/http/http_connection.h"
#include "host/http/http_response.h"

namespace vexa::http {
namespace {

constexpr std::chrono::milliseconds kSweepInterval{500};
// Above this number, refused connections are closed without a response.
constexpr std::size_t kMaxRefusedConnections = 64;

}  // namespace

IoThread::IoThread(ServerShared& server, int number, std::function<void()> on_drained)
    : server_(server),
      number_(number),
      on_drained_(std::move(on_drained)),
      work_(context_.get_executor()),
      sweep_timer_(context_.get_executor()),
      mailbox_(std::make_shared<Mailbox>(context_, [this](PendingResponse&& pending) { Deliver(std::move(pending)); })),
      read_scratch_(std::make_unique<std::array<char, 64 * 1024>>()) {}

IoThread::~IoThread() {
  if (thread_.joinable()) {
    Post([this] { Abort(); });
    Join();
  }
  mailbox_->Close();
}

void IoThread::Start() {
  thread_ = StartThreadBlockingSignals([this] { Run(); });
}

void IoThread::Join() {
  if (thread_.joinable()) thread_.join();
}

void IoThread::Post(std::function<void()> work) { boost::asio::post(context_, std::move(work)); }

void IoThread::Run() {
  pthread_setname_np(pthread_self(), ("http-" + std::to_string(number_)).c_str());
  for (;;) {
    try {
      context_.run();
      return;
    } catch (const std::exception& failure) {
      // Probably out of memory. The affected connection ends at its deadline; the others continue.
      syslog(LOG_ERR, "HTTP server: an event failed: %s", failure.what());
    }
  }
}

void IoThread::AddConnection(AcceptedConnection&& accepted) {
  const bool refusal = accepted.place == nullptr;
  if (stopping_ || (refusal && (accepted.tls || refusals_ >= kMaxRefusedConnections))) return;
  std::size_t slot = slots_.size();
  if (free_slots_.empty()) {
    slots_.emplace_back();
    free_slots_.reserve(slots_.capacity());  // so that ReleaseSlot() cannot fail
  } else {
    slot = free_slots_.back();
    free_slots_.pop_back();
  }
  ++connections_;
  ++undrained_;
  try {
    slots_[slot] = std::make_shared<Connection>(*this, slot, std::move(accepted));
  } catch (...) {
    ConnectionDrained();
    ReleaseSlot(slot);
    throw;
  }
  if (refusal) ++refusals_;
  const std::shared_ptr<Connection> connection = slots_[slot];
  connection->Start();
  ArmSweep();
}

void IoThread::BeginStop() {
  stopping_ = true;
  for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
    if (const std::shared_ptr<Connection> connection = slots_[slot]) connection->BeginStop();
  }
  if (undrained_ == 0 && on_drained_) std::exchange(on_drained_, nullptr)();
}

std::size_t IoThread::Abort() {
  stopping_ = true;
  on_drained_ = nullptr;
  mailbox_->Close();
  const std::size_t interrupted = undrained_;
  for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
    if (const std::shared_ptr<Connection> connection = slots_[slot]) connection->Close();
  }
  sweep_timer_.cancel();
  work_.reset();
  return interrupted;
}

std::string_view IoThread::Date() {
  const std::time_t now = std::time(nullptr);
  if (now != date_time_) {
    date_ = HttpDate(now);
    date_time_ = now;
  }
  return date_;
}

void IoThread::ConnectionDrained() {
  --undrained_;
  if (stopping_ && undrained_ == 0 && on_drained_) std::exchange(on_drained_, nullptr)();
}

void IoThread::ReleaseSlot(std::size_t slot) {
  if (slots_[slot] && slots_[slot]->is_refusal()) --refusals_;
  slots_[slot] = nullptr;
  free_slots_.push_back(slot);
  --connections_;
}

void IoThread::Deliver(PendingResponse&& pending) {
  if (pending.slot >= slots_.size()) return;
  const std::shared_ptr<Connection> connection = slots_[pending.slot];
  if (!connection) return;
  try {
    connection->Deliver(std::move(pending));
  } catch (const std::exception&) {
    connection->Close();  // out of memory; the answers after this one must still be delivered
  }
}

// One timer for all deadlines. It does not run while there is no connection.
void IoThread::ArmSweep() {
  if (sweeping_ || connections_ == 0) return;
  sweeping_ = true;
  sweep_timer_.expires_after(kSweepInterval);
  sweep_timer_.async_wait([this](const boost::system::error_code& error) {
    sweeping_ = false;
    if (error) return;
    Sweep();
    ArmSweep();
  });
}

void IoThread::Sweep() {
  const auto now = std::chrono::steady_clock::now();
  for (std::size_t slot = 0; slot < slots_.size(); ++slot) {
    const std::shared_ptr<Connection> connection = slots_[slot];
    if (!connection) continue;
    try {
      connection->OnSweep(now);
    } catch (const std::exception&) {
      connection->Close();  // the sweep must continue
    }
  }
}

}  // namespace vexa::http
