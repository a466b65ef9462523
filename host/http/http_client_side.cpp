#include "host/http/http_client_side.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <boost/asio/write.hpp>
#include <boost/beast/http/message.hpp>
#include <boost/beast/http/string_body.hpp>
#include <boost/beast/websocket.hpp>
#include <utility>

#include "host/http/http_transport_stream.h"
#include "host/http/http_tunnel.h"

namespace vexa::http {
namespace {

namespace websocket = boost::beast::websocket;
namespace beast_http = boost::beast::http;
using boost::system::error_code;

// The handlers keep the stream alive: closing the socket ends them, but does not remove them.
class WebSocketSide final : public ClientSide {
 public:
  explicit WebSocketSide(ClientSideParts parts)
      : stream_(std::make_shared<Stream>(
            TransportStream(std::move(parts.owner), parts.socket, parts.transport, std::move(parts.received)))),
        request_id_(std::move(parts.request_id)),
        key_(std::move(parts.websocket_key)) {
    websocket::stream_base::timeout times{};
    times.handshake_timeout = parts.stalled;
    times.idle_timeout = parts.stalled;  // a ping is sent after half of it
    times.keep_alive_pings = true;
    stream_->set_option(times);
    stream_->read_message_max(kMaxMessageBytes);
    stream_->binary(true);
    stream_->auto_fragment(false);
    stream_->write_buffer_bytes(4096);
    stream_->secure_prng(true);
  }

  void Accept(Done done) override {
    beast_http::request<beast_http::string_body> request(beast_http::verb::get, "/", 11);
    request.set(beast_http::field::host, "-");
    request.set(beast_http::field::connection, "Upgrade");
    request.set(beast_http::field::upgrade, "websocket");
    request.set(beast_http::field::sec_websocket_version, "13");
    request.set(beast_http::field::sec_websocket_key, key_);
    stream_->set_option(websocket::stream_base::decorator([id = request_id_](websocket::response_type& response) {
      response.set(beast_http::field::server, "vexad");
      response.set("X-Request-Id", id);
    }));
    stream_->async_accept(request,
                          [stream = stream_, done = std::move(done)](const error_code& error) { done(!error); });
  }

  void AsyncRead(char* buffer, std::size_t size, Read read) override {
    stream_->async_read_some(boost::asio::buffer(buffer, size),
                             [stream = stream_, read = std::move(read)](const error_code& error, std::size_t bytes) {
                               read(!error, bytes);
                             });
  }

  void AsyncWrite(std::string_view bytes, Done done) override {
    stream_->async_write(
        boost::asio::buffer(bytes.data(), bytes.size()),
        [stream = stream_, done = std::move(done)](const error_code& error, std::size_t) { done(!error); });
  }

  void AsyncClose(TunnelClose why, Done done) override {
    if (!stream_->is_open()) return done(false);
    websocket::close_reason reason(websocket::close_code::normal);
    if (why == TunnelClose::kGoingAway) reason.code = websocket::close_code::going_away;
    if (why == TunnelClose::kNotAllowed) reason.code = websocket::close_code::policy_error;
    stream_->async_close(reason, [stream = stream_, done = std::move(done)](const error_code&) { done(false); });
  }

 private:
  using Stream = websocket::stream<TransportStream, false>;

  std::shared_ptr<Stream> stream_;
  std::string request_id_;
  std::string key_;
};

class RawSide final : public ClientSide {
 public:
  explicit RawSide(ClientSideParts parts)
      : stream_(std::make_shared<TransportStream>(std::move(parts.owner), parts.socket, parts.transport,
                                                  std::move(parts.received))),
        response_("HTTP/1.1 101 Switching Protocols\r\nConnection: Upgrade\r\nUpgrade: " + std::string(kRawTunnel) +
                  "\r\nX-Request-Id: " + parts.request_id + "\r\n\r\n") {
    // Without pings, probes of the kernel notice a client that lost its power.
    const int socket = parts.socket.native_handle();
    const int on = 1;
    const int idle_s = 30;
    const int interval_s = 10;
    const int probes = 3;
    (void)::setsockopt(socket, SOL_SOCKET, SO_KEEPALIVE, &on, sizeof on);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPIDLE, &idle_s, sizeof idle_s);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPINTVL, &interval_s, sizeof interval_s);
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_KEEPCNT, &probes, sizeof probes);
  }

  void Accept(Done done) override { AsyncWrite(response_, std::move(done)); }

  void AsyncRead(char* buffer, std::size_t size, Read read) override {
    stream_->async_read_some(boost::asio::buffer(buffer, size),
                             [stream = stream_, read = std::move(read)](const error_code& error, std::size_t bytes) {
                               read(!error, bytes);
                             });
  }

  void AsyncWrite(std::string_view bytes, Done done) override {
    boost::asio::async_write(
        *stream_, boost::asio::buffer(bytes.data(), bytes.size()),
        [stream = stream_, done = std::move(done)](const error_code& error, std::size_t) { done(!error); });
  }

  // The read under way notices when the client has hung up as well.
  void AsyncClose(TunnelClose /*why*/, Done /*done*/) override { stream_->transport().ShutdownWrite(); }

 private:
  std::shared_ptr<TransportStream> stream_;
  const std::string response_;
};

}  // namespace

IoResult TransportStream::TryRead(char* bytes, std::size_t size) {
  if (received_.empty()) return transport_.Read(bytes, size);
  const std::size_t count = received_.copy(bytes, size);
  received_.erase(0, count);
  if (received_.empty()) std::string().swap(received_);
  return {IoState::kDone, count};
}

void beast_close_socket(TransportStream& stream) {
  error_code ignored;
  stream.socket().close(ignored);
}

void teardown(boost::beast::role_type /*role*/, TransportStream& stream, error_code& error) {
  if (stream.socket().is_open()) stream.transport().ShutdownWrite();
  error = {};
}

std::unique_ptr<ClientSide> MakeWebSocketSide(ClientSideParts parts) {
  return std::make_unique<WebSocketSide>(std::move(parts));
}

std::unique_ptr<ClientSide> MakeRawSide(ClientSideParts parts) { return std::make_unique<RawSide>(std::move(parts)); }

}  // namespace vexa::http
