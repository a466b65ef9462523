#include "tests/support/websocket_client.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace vexa::test {
namespace {

constexpr int kTimeoutMs = 30'000;

int Connected(int fd, const sockaddr* address, socklen_t size) {
  if (::connect(fd, address, size) == 0) return fd;
  ::close(fd);
  return -1;
}

std::uint64_t Number(const std::string& bytes, std::size_t at, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) number = number << 8 | static_cast<unsigned char>(bytes[at + i]);
  return number;
}

}  // namespace

std::string FrameHeader(int opcode, std::uint64_t payload_bytes, bool is_last) {
  constexpr char kMasked = static_cast<char>(0x80);
  std::string header(1, static_cast<char>((is_last ? 0x80 : 0) | opcode));
  const auto append = [&](std::size_t size) {
    for (std::size_t i = size; i-- > 0;) header += static_cast<char>(payload_bytes >> (8 * i) & 0xff);
  };
  if (payload_bytes < 126) {
    header += static_cast<char>(kMasked | static_cast<char>(payload_bytes));
  } else if (payload_bytes < 65536) {
    header += static_cast<char>(kMasked | 126);
    append(2);
  } else {
    header += static_cast<char>(kMasked | 127);
    append(8);
  }
  return header + std::string(4, '\0');
}

WebSocketClient WebSocketClient::Unix(const std::string& path) {
  sockaddr_un server{};
  server.sun_family = AF_UNIX;
  std::strncpy(server.sun_path, path.c_str(), sizeof server.sun_path - 1);
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return WebSocketClient(Connected(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server));
}

WebSocketClient WebSocketClient::Tcp(std::uint16_t port) {
  sockaddr_in server{};
  server.sin_family = AF_INET;
  server.sin_port = htons(port);
  server.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return WebSocketClient(Connected(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server));
}

WebSocketClient::WebSocketClient(WebSocketClient&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      input_(std::move(other.input_)),
      received_(std::move(other.received_)),
      header_(std::move(other.header_)),
      body_(std::move(other.body_)) {}

WebSocketClient::~WebSocketClient() { Close(); }

void WebSocketClient::Close() {
  if (fd_ >= 0) ::close(std::exchange(fd_, -1));
}

int WebSocketClient::Upgrade(const std::string& target, const std::string& fields) {
  std::string request = "GET " + target + " HTTP/1.1\r\nConnection: Upgrade\r\nUpgrade: websocket\r\n";
  if (fields.find("Host: ") == std::string::npos) request += "Host: nas\r\n";
  if (fields.find("Sec-WebSocket-Version: ") == std::string::npos) request += "Sec-WebSocket-Version: 13\r\n";
  if (fields.find("Sec-WebSocket-Key: ") == std::string::npos) {
    request += "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\n";
  }
  if (!SendRaw(request + fields + "\r\n")) return 0;
  std::size_t end = 0;
  while ((end = input_.find("\r\n\r\n")) == std::string::npos) {
    if (!Fill()) return 0;
  }
  header_ = input_.substr(0, end + 4);
  input_.erase(0, end + 4);
  const std::size_t length = header_.find("Content-Length: ");
  if (length != std::string::npos) {
    const auto bytes = static_cast<std::size_t>(std::atoll(header_.c_str() + length + 16));
    if (!FillTo(bytes)) return 0;
    body_ = input_.substr(0, bytes);
    input_.erase(0, bytes);
  }
  return header_.starts_with("HTTP/1.1 ") ? std::atoi(header_.c_str() + 9) : 0;
}

bool WebSocketClient::SendRaw(const std::string& bytes) {
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t step = ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (step <= 0) return false;
    sent += static_cast<std::size_t>(step);
  }
  return true;
}

bool WebSocketClient::SendFrame(int opcode, const std::string& payload, bool is_last) {
  return SendRaw(FrameHeader(opcode, payload.size(), is_last) + payload);
}

bool WebSocketClient::Fill() {
  pollfd readable{fd_, POLLIN, 0};
  if (fd_ < 0 || ::poll(&readable, 1, kTimeoutMs) != 1) return false;
  std::array<char, 65536> buffer;
  const ssize_t got = ::recv(fd_, buffer.data(), buffer.size(), 0);
  if (got <= 0) return false;
  input_.append(buffer.data(), static_cast<std::size_t>(got));
  return true;
}

bool WebSocketClient::FillTo(std::size_t bytes) {
  while (input_.size() < bytes) {
    if (!Fill()) return false;
  }
  return true;
}

WebSocketClient::Frame WebSocketClient::ReceiveFrame() {
  Frame frame;
  if (!FillTo(2)) return frame;
  const auto first = static_cast<unsigned char>(input_[0]);
  const auto second = static_cast<unsigned char>(input_[1]);
  const std::size_t extra = second == 126 ? 2 : second == 127 ? 8 : 0;
  if ((second & 0x80) != 0 || !FillTo(2 + extra)) return frame;
  const auto size = static_cast<std::size_t>(extra == 0 ? second : Number(input_, 2, extra));
  if (!FillTo(2 + extra + size)) return frame;
  frame.opcode = first & 0xf;
  frame.is_last = (first & 0x80) != 0;
  frame.payload = input_.substr(2 + extra, size);
  input_.erase(0, 2 + extra + size);
  return frame;
}

std::string WebSocketClient::Receive(std::size_t bytes) {
  while (received_.size() < bytes) {
    const Frame frame = ReceiveFrame();
    if (frame.opcode < 0 || frame.opcode == kClose) break;
    if (frame.opcode <= kBinary) received_ += frame.payload;
  }
  return std::exchange(received_, {});
}

std::string WebSocketClient::ReceiveUntil(const std::string& text) {
  std::string all;
  while (all.find(text) == std::string::npos) {
    const std::string more = Receive(1);
    if (more.empty()) break;
    all += more;
  }
  return all;
}

int WebSocketClient::ReceiveClose() {
  for (;;) {
    const Frame frame = ReceiveFrame();
    if (frame.opcode < 0) return 0;
    if (frame.opcode == kClose) return frame.payload.size() < 2 ? 1005 : static_cast<int>(Number(frame.payload, 0, 2));
  }
}

}  // namespace vexa::test
