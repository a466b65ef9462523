#include "host/http/http_transport.h"

#include <openssl/err.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <new>

namespace vexa::http {
namespace {

IoResult FromSystem(ssize_t result, IoState when_blocked) {
  if (result > 0) return {IoState::kDone, static_cast<std::size_t>(result)};
  if (result == 0) return {IoState::kEnd};
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return {when_blocked};
  return {IoState::kFailed};
}

iovec Part(std::string_view bytes) { return {const_cast<char*>(bytes.data()), bytes.size()}; }

int TlsSize(std::size_t size) { return static_cast<int>(std::min<std::size_t>(size, std::numeric_limits<int>::max())); }

}  // namespace

Transport::Transport(int fd, SSL_CTX* context) : fd_(fd) {
  if (context == nullptr) return;
  ssl_.reset(SSL_new(context));
  if (ssl_ == nullptr || SSL_set_fd(ssl_.get(), fd) != 1) throw std::bad_alloc();
  SSL_set_accept_state(ssl_.get());
}

IoResult Transport::FromTls(int result) {
  if (result > 0) return {IoState::kDone, static_cast<std::size_t>(result)};
  switch (SSL_get_error(ssl_.get(), result)) {
    case SSL_ERROR_WANT_READ:
      return {IoState::kWantRead};
    case SSL_ERROR_WANT_WRITE:
      return {IoState::kWantWrite};
    case SSL_ERROR_ZERO_RETURN:
      return {IoState::kEnd};
    default:
      ERR_clear_error();
      return {IoState::kFailed};
  }
}

IoResult Transport::Handshake() {
  ERR_clear_error();
  const IoResult result = FromTls(SSL_accept(ssl_.get()));
  handshake_done_ = result.state == IoState::kDone;
  return result;
}

IoResult Transport::Read(char* buffer, std::size_t size) {
  if (ssl_ == nullptr) return FromSystem(::recv(fd_, buffer, size, 0), IoState::kWantRead);
  ERR_clear_error();
  return FromTls(SSL_read(ssl_.get(), buffer, TlsSize(size)));
}

IoResult Transport::Write(std::string_view header, std::string_view body) {
  if (ssl_ != nullptr) {
    const std::string_view first = header.empty() ? body : header;
    ERR_clear_error();
    return FromTls(SSL_write(ssl_.get(), first.data(), TlsSize(first.size())));
  }
  std::array<iovec, 2> parts = {Part(header), Part(body)};
  msghdr message{};
  message.msg_iov = parts.data();
  message.msg_iovlen = body.empty() ? 1 : 2;
  return FromSystem(::sendmsg(fd_, &message, MSG_NOSIGNAL), IoState::kWantWrite);
}

void Transport::ShutdownWrite() {
  if (handshake_done_) {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
    ERR_clear_error();
  }
  ::shutdown(fd_, SHUT_WR);
}

IoResult Transport::Discard(char* buffer, std::size_t size) {
  return FromSystem(::recv(fd_, buffer, size, 0), IoState::kWantRead);
}

}  // namespace vexa::http
