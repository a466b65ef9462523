#include "host/http/http_acceptor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <exception>

namespace vexa::http {
namespace {

constexpr int kAcceptsPerEvent = 64;
// After the process or the system has run out of descriptors or memory, an immediate retry would only waste processor
// time.
constexpr std::chrono::milliseconds kAcceptRetryInterval{100};

void SetOption(int fd, int level, int name, int value) { ::setsockopt(fd, level, name, &value, sizeof value); }

void SetTcpOptions(int fd, std::chrono::milliseconds write_limit) {
  SetOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
  SetOption(fd, IPPROTO_TCP, TCP_USER_TIMEOUT, static_cast<int>(write_limit.count()));
  // Detects peers that vanished while a handler runs and no deadline applies.
  SetOption(fd, SOL_SOCKET, SO_KEEPALIVE, 1);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPIDLE, 60);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPINTVL, 15);
  SetOption(fd, IPPROTO_TCP, TCP_KEEPCNT, 4);
}

// False when the kernel does not report the user id of a Unix peer.
bool ReadPeer(int fd, const sockaddr_storage& address, Peer& peer) {
  if (address.ss_family == AF_INET || address.ss_family == AF_INET6) {
    char text[INET6_ADDRSTRLEN] = {};
    const void* const binary =
        address.ss_family == AF_INET
            ? static_cast<const void*>(&reinterpret_cast<const sockaddr_in*>(&address)->sin_addr)
            : static_cast<const void*>(&reinterpret_cast<const sockaddr_in6*>(&address)->sin6_addr);
    peer.address = ::inet_ntop(address.ss_family, binary, text, sizeof text);
    return true;
  }
  ucred credentials{};
  socklen_t size = sizeof credentials;
  peer.kind = Peer::Kind::kUnix;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &size) != 0) return false;
  peer.uid = credentials.uid;
  return true;
}

int SocketFamily(int fd) {
  int family = AF_UNIX;
  socklen_t size = sizeof family;
  ::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &size);
  return family;
}

}  // namespace

Acceptor::Acceptor(boost::asio::io_context& context, ServerShared& server, ListeningSocket listening, TlsContext tls,
                   std::function<void(AcceptedConnection&&)> hand_over)
    : server_(server),
      listening_(std::make_unique<ListeningSocket>(std::move(listening))),
      tls_(std::move(tls)),
      hand_over_(std::move(hand_over)),
      socket_(context.get_executor()),
      retry_timer_(context.get_executor()) {
  socket_.assign(boost::asio::generic::stream_protocol(SocketFamily(listening_->fd()), 0), listening_->fd());
  listening_->Release();
}

void Acceptor::Start() { Arm(); }

void Acceptor::Close() {
  boost::system::error_code ignored;
  socket_.close(ignored);
  retry_timer_.cancel();
  listening_.reset();
}

void Acceptor::Arm() {
  socket_.async_wait(StreamSocket::wait_read, [self = shared_from_this()](const boost::system::error_code& error) {
    if (error || !self->listening_) return;
    try {
      self->AcceptSome();
    } catch (const std::exception&) {
      self->RetryLater();  // out of memory: this connection is lost, but the listener must survive
    }
  });
}

void Acceptor::RetryLater() {
  retry_timer_.expires_after(kAcceptRetryInterval);
  retry_timer_.async_wait([self = shared_from_this()](const boost::system::error_code& error) {
    if (!error && self->listening_) self->Arm();
  });
}

void Acceptor::AcceptSome() {
  for (int i = 0; i < kAcceptsPerEvent; ++i) {
    sockaddr_storage address{};
    socklen_t size = sizeof address;
    AcceptedConnection accepted;
    accepted.fd =
        ::accept4(socket_.native_handle(), reinterpret_cast<sockaddr*>(&address), &size, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (accepted.fd < 0) {
      if (errno == EAGAIN) break;
      if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) return RetryLater();
      continue;  // this peer is already gone, or its network failed
    }
    accepted.family = address.ss_family;
    if (!ReadPeer(accepted.fd, address, accepted.peer)) continue;
    if (accepted.peer.kind == Peer::Kind::kTcp) SetTcpOptions(accepted.fd, server_.options.limits.write);
    accepted.tls = tls_;
    accepted.place = server_.connections->Enter(accepted.peer);
    (accepted.place ? server_.accepted : server_.refused_connections).fetch_add(1, std::memory_order_relaxed);
    hand_over_(std::move(accepted));
  }
  Arm();
}

}  // namespace vexa::http
