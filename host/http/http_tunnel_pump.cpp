#include "host/http/http_tunnel_pump.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <utility>

namespace vexa::http {
namespace {

using boost::system::error_code;

// How long a client has to take the farewell.
constexpr std::chrono::seconds kCloseTime{2};
// How long the other end may take none of what a client sent before it left.
constexpr std::chrono::seconds kTimeForRest{2};

class SocketEnd final : public TunnelEnd {
 public:
  explicit SocketEnd(Descriptor socket) : socket_(std::move(socket)) {
    const int flags = ::fcntl(socket_.get(), F_GETFL);
    if (flags >= 0) (void)::fcntl(socket_.get(), F_SETFL, flags | O_NONBLOCK);
  }

  int fd() const override { return socket_.get(); }

  IoResult Read(char* buffer, std::size_t size) override {
    return ResultOf(::recv(socket_.get(), buffer, size, 0), IoState::kWantRead);
  }

  IoResult Write(std::string_view bytes) override {
    return ResultOf(::send(socket_.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL), IoState::kWantWrite);
  }

 private:
  static IoResult ResultOf(ssize_t result, IoState when_blocked) {
    if (result > 0) return {IoState::kDone, static_cast<std::size_t>(result)};
    if (result == 0) return {IoState::kEnd};
    return {errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR ? when_blocked : IoState::kFailed};
  }

  const Descriptor socket_;
};

}  // namespace

std::unique_ptr<TunnelEnd> MakeSocketEnd(Descriptor socket) { return std::make_unique<SocketEnd>(std::move(socket)); }

TunnelPump::TunnelPump(StreamSocket& socket, std::unique_ptr<ClientSide> client, Tunnel&& tunnel,
                       std::function<void()> on_end)
    : socket_(socket),
      client_(std::move(client)),
      tunnel_(std::move(tunnel)),
      on_end_(std::move(on_end)),
      end_(socket.get_executor()),
      from_client_(kTunnelBufferBytes),
      to_client_(kTunnelBufferBytes),
      moved_at_(Clock::now()) {}

TunnelPump::~TunnelPump() {
  if (end_.is_open()) end_.release();
}

void TunnelPump::Start() {
  end_.assign(tunnel_.end->fd());
  write_since_ = Clock::now();
  client_->Accept([self = shared_from_this()](bool is_open) {
    self->write_since_ = Clock::time_point::max();
    if (!is_open) return self->End();
    if (!self->IsActive()) return;
    self->ReadClient();
    self->ReadEnd();
  });
}

void TunnelPump::ReadClient() {
  client_->AsyncRead(from_client_.data(), from_client_.size(),
                     [self = shared_from_this()](bool is_open, std::size_t bytes) {
                       if (!is_open) return self->End();
                       if (self->on_end_ == nullptr) return;
                       // What arrives after the farewell is for nobody.
                       if (bytes == 0 || self->is_closing_) return self->ReadClient();
                       self->RecordBytes();
                       self->WriteEnd({self->from_client_.data(), bytes});
                     });
}

void TunnelPump::WriteEnd(std::string_view bytes) {
  while (!bytes.empty()) {
    const IoResult result = tunnel_.end->Write(bytes);
    if (result.state == IoState::kDone) {
      bytes.remove_prefix(result.bytes);
      blocked_since_ = Clock::time_point::max();
      RecordBytes();
      continue;
    }
    const bool wants_read = result.state == IoState::kWantRead;
    if (blocked_since_ == Clock::time_point::max()) blocked_since_ = Clock::now();
    if (!wants_read && result.state != IoState::kWantWrite) return Close(TunnelClose::kEnded);
    return Wait(wants_read ? Waiter::wait_read : Waiter::wait_write, [this, bytes] { WriteEnd(bytes); });
  }
  ReadClient();
}

void TunnelPump::ReadEnd() {
  const IoResult result = tunnel_.end->Read(to_client_.data(), to_client_.size());
  if (result.state == IoState::kWantRead) return Wait(Waiter::wait_read, [this] { ReadEnd(); });
  if (result.state == IoState::kWantWrite) return Wait(Waiter::wait_write, [this] { ReadEnd(); });
  if (result.state != IoState::kDone) return Close(TunnelClose::kEnded);
  RecordBytes();
  write_since_ = Clock::now();
  client_->AsyncWrite({to_client_.data(), result.bytes}, [self = shared_from_this()](bool is_open) {
    self->write_since_ = Clock::time_point::max();
    if (!is_open) return self->End();
    if (self->IsActive()) self->ReadEnd();
  });
}

void TunnelPump::Wait(Waiter::wait_type type, std::function<void()> then) {
  end_.async_wait(type, [self = shared_from_this(), then = std::move(then)](const error_code& error) {
    if (!error && self->IsActive()) then();
  });
}

void TunnelPump::OnSweep(Clock::time_point now) {
  if (now >= close_by_ || (write_since_ != Clock::time_point::max() && now - write_since_ >= tunnel_.stalled)) {
    return End();
  }
  if (!IsActive()) return;
  // Nothing is read from the client meanwhile, so nothing else notices its end.
  if (blocked_since_ != Clock::time_point::max()) {
    if (now - blocked_since_ >= tunnel_.stalled) return Close(TunnelClose::kNotAllowed);
    if (now - blocked_since_ >= kTimeForRest && HasClientLeft()) return End();
  }
  const bool may_continue = !tunnel_.may_continue || tunnel_.may_continue();
  if (!may_continue || now - moved_at_ >= tunnel_.idle) Close(TunnelClose::kNotAllowed);
}

bool TunnelPump::HasClientLeft() {
  pollfd state{socket_.native_handle(), POLLRDHUP, 0};
  return ::poll(&state, 1, 0) == 1;
}

void TunnelPump::Close(TunnelClose why) {
  if (!IsActive()) return;
  is_closing_ = true;
  close_by_ = Clock::now() + kCloseTime;
  if (end_.is_open()) end_.release();
  tunnel_.end.reset();
  client_->AsyncClose(why, [self = shared_from_this()](bool) { self->End(); });
}

void TunnelPump::End() {
  if (on_end_ != nullptr) std::exchange(on_end_, nullptr)();
}

void TunnelPump::Abandon() {
  on_end_ = nullptr;
  if (end_.is_open()) end_.release();
  tunnel_ = Tunnel();
}

}  // namespace vexa::http
