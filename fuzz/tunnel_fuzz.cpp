// What a client sends to a console: the request for an upgrade, and then WebSocket frames or plain bytes. Compares what
// reaches the guest's side with a decoder of its own.
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/base/descriptor.h"
#include "host/base/mutex.h"
#include "host/http/http_server.h"
#include "host/http/http_tunnel.h"

namespace {

using vexa::Descriptor;
using vexa::fuzz::Check;

// Every tunnel of the server leads to a socket that the fuzzer reads.
class Server {
 public:
  Server() {
    std::string folder = "/tmp/vexa-tunnel-fuzz.XXXXXX";
    Check(::mkdtemp(folder.data()) != nullptr, "a folder for the socket");
    path_ = folder + "/socket";
    vexa::http::ServerOptions options;
    options.io_threads = 1;
    options.listeners.emplace_back();
    options.listeners.back().kind = vexa::http::ListenerOptions::Kind::kUnix;
    options.listeners.back().path = path_;
    options.on_request = [this](vexa::http::HttpRequest&& request, vexa::http::Responder responder) {
      vexa::http::HttpResponse response;
      if (!request.upgrade.empty()) response.tunnel = Open();
      responder.Send(std::move(response));
    };
    auto started = vexa::http::HttpServer::Start(std::move(options));
    Check(started.ok(), "the server starts");
    server_ = std::move(*started);
  }
  ~Server() {
    server_.reset();
    (void)::rmdir(path_.substr(0, path_.rfind('/')).c_str());
  }

  Descriptor Connect() const {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
    Descriptor client(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    Check(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0, "a connection");
    return client;
  }
  // The guest's side of the tunnel that was opened last.
  std::optional<Descriptor> TakeGuest() {
    const vexa::MutexLock lock(mutex_);
    return std::exchange(guest_, std::nullopt);
  }

 private:
  std::shared_ptr<vexa::http::Tunnel> Open() {
    std::array<int, 2> sockets{};
    Check(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, sockets.data()) == 0, "sockets");
    auto tunnel = std::make_shared<vexa::http::Tunnel>();
    tunnel->end = vexa::http::MakeSocketEnd(Descriptor(sockets[0]));
    const vexa::MutexLock lock(mutex_);
    Check(!guest_.has_value(), "a connection opens one tunnel at most");
    guest_.emplace(sockets[1]);
    return tunnel;
  }

  std::string path_;
  vexa::Mutex mutex_;
  std::optional<Descriptor> guest_ VEXA_GUARDED_BY(mutex_);
  std::unique_ptr<vexa::http::HttpServer> server_;
};

// Until `end`, or until the other side ends, for at most 30 s.
std::string ReadUntil(const Descriptor& socket, std::string_view end) {
  std::string all;
  std::array<char, 8192> part;
  while (end.empty() || !all.ends_with(end)) {
    const std::size_t size = end.empty() ? part.size() : 1;
    pollfd readable{socket.get(), POLLIN, 0};
    Check(::poll(&readable, 1, 30'000) == 1, "a connection whose client sends nothing more ends");
    const ssize_t got = ::recv(socket.get(), part.data(), size, 0);
    if (got <= 0) break;
    all.append(part.data(), static_cast<std::size_t>(got));
  }
  return all;
}

struct Decoded {
  std::string data;        // of the frames up to the first that breaks a rule
  bool is_certain = true;  // all of it must arrive
};

// RFC 6455, from the server's point of view.
Decoded Decode(std::string_view frames) {
  Decoded decoded;
  bool in_message = false;
  std::uint64_t message_bytes = 0;
  const auto fail = [&] {
    decoded.is_certain = false;
    return decoded;
  };
  while (frames.size() >= 2) {
    const auto byte = [&](std::size_t at) { return static_cast<unsigned char>(frames[at]); };
    const bool is_last = (byte(0) & 0x80) != 0;
    const int opcode = byte(0) & 0x0f;
    std::uint64_t length = byte(1) & 0x7f;
    const bool is_control = opcode >= 8;
    const bool is_known = opcode <= 2 || (opcode >= 8 && opcode <= 10);
    if ((byte(0) & 0x70) != 0 || !is_known || (byte(1) & 0x80) == 0) return fail();
    if (is_control && (!is_last || length > 125)) return fail();
    if (!is_control && (opcode == 0) != in_message) return fail();
    const std::size_t length_bytes = length == 127 ? 8 : length == 126 ? 2 : 0;
    const std::size_t header_bytes = 2 + length_bytes + 4;
    if (frames.size() < header_bytes) return decoded;
    if (length_bytes > 0) {
      length = 0;
      for (std::size_t i = 0; i < length_bytes; ++i) length = length << 8 | byte(2 + i);
      if (length < (length_bytes == 2 ? 126U : 65536U) || (length >> 63) != 0) return fail();
    }
    if (!is_control) {
      if (opcode != 0) message_bytes = 0;
      if (length > vexa::http::kMaxMessageBytes - message_bytes) return fail();
      message_bytes += length;
      in_message = !is_last;
    }
    const std::string_view mask = frames.substr(header_bytes - 4, 4);
    frames.remove_prefix(header_bytes);
    const std::string_view payload = frames.substr(0, length);
    frames.remove_prefix(payload.size());
    if (opcode == 8) return fail();  // what comes before a farewell may still be on its way when the tunnel ends
    if (opcode == 1 || opcode == 0) decoded.is_certain = false;  // a text is refused where it is not UTF-8
    if (is_control) continue;
    for (std::size_t i = 0; i < payload.size(); ++i) {
      decoded.data += static_cast<char>(payload[i] ^ mask[i % mask.size()]);
    }
  }
  return decoded;
}

constexpr std::string_view kWebSocketHeader =
    "GET /console/x HTTP/1.1\r\nHost: nas\r\nConnection: Upgrade\r\nUpgrade: websocket\r\nSec-WebSocket-Version: 13\r\n"
    "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n\r\n";
constexpr std::string_view kRawHeader =
    "GET /console/x HTTP/1.1\r\nHost: nas\r\nConnection: Upgrade\r\nUpgrade: vexa-tunnel\r\n\r\n";

}  // namespace

// The first line is "websocket", "raw", or nothing; what follows is sent after that header, or as it is.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Server server;
  std::string_view rest = vexa::fuzz::Text(data, size);
  const std::string_view kind = vexa::fuzz::TakeUntil(rest, "\n");
  const std::string_view header = kind == "websocket" ? kWebSocketHeader : kind == "raw" ? kRawHeader : "";
  const Descriptor client = server.Connect();
  const std::string bytes = std::string(header) + std::string(rest);
  (void)!::send(client.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL);  // it may have refused the beginning
  // A client that has left before the upgrade gets none.
  std::string reply = header.empty() ? std::string() : ReadUntil(client, "\r\n\r\n");
  if (!header.empty()) Check(reply.starts_with("HTTP/1.1 101 "), "a good request opens a tunnel");
  (void)::shutdown(client.get(), SHUT_WR);
  reply += ReadUntil(client, "");
  Check(reply.empty() || reply.starts_with("HTTP/1.1 "), "the reply is one of HTTP");
  const std::optional<Descriptor> guest = server.TakeGuest();
  const bool is_open = reply.find("HTTP/1.1 101 ") != std::string::npos;
  Check(guest.has_value() || !is_open, "an upgrade leads to a tunnel");
  if (!guest) return 0;
  const std::string received = ReadUntil(*guest, "");
  Check(received.empty() || is_open, "bytes arrive after an upgrade only");
  if (kind == "raw") Check(received == rest, "the bytes arrive as they were sent");
  if (kind == "websocket") {
    const Decoded decoded = Decode(rest);
    Check(decoded.data.starts_with(received), "nothing but the data of good frames reaches the guest");
    if (decoded.is_certain) Check(received == decoded.data, "the data of good frames reaches the guest");
  }
  return 0;
}
