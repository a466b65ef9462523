// A WebSocket client for tests, made by hand so that it can also break the rules of the protocol.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace vexa::test {

// Reads give up after 30 s. Threads: one at a time.
class WebSocketClient {
 public:
  static constexpr int kContinuation = 0;
  static constexpr int kText = 1;
  static constexpr int kBinary = 2;
  static constexpr int kClose = 8;
  static constexpr int kPing = 9;
  static constexpr int kPong = 10;

  struct Frame {
    int opcode = -1;  // -1: the connection has ended, or nothing came in time
    bool is_last = true;
    std::string payload;
  };

  static WebSocketClient Unix(const std::string& path);
  static WebSocketClient Tcp(std::uint16_t port);  // of 127.0.0.1
  explicit WebSocketClient(int fd) : fd_(fd) {}
  WebSocketClient(WebSocketClient&& other) noexcept;
  WebSocketClient& operator=(WebSocketClient&&) = delete;
  ~WebSocketClient();

  // Asks for the upgrade, with more `fields` ("Name: value\r\n"), and returns the status of the response; 0 without
  // one. `body()` is the body of a refusal.
  int Upgrade(const std::string& target, const std::string& fields = "");
  const std::string& header() const { return header_; }
  const std::string& body() const { return body_; }

  // False when the server has hung up.
  bool SendRaw(const std::string& bytes);
  bool SendFrame(int opcode, const std::string& payload, bool is_last = true);
  bool Send(const std::string& payload) { return SendFrame(kBinary, payload); }

  Frame ReceiveFrame();
  // Payload of data frames, at least this much; less when the connection ends. Other frames are dropped.
  std::string Receive(std::size_t bytes);
  // Payload of data frames, until it contains `text`.
  std::string ReceiveUntil(const std::string& text);
  // The code of the close frame that ends the connection; 0 when it ends without one. Data frames are dropped.
  int ReceiveClose();

  int fd() const { return fd_; }
  void Close();

 private:
  bool Fill();
  bool FillTo(std::size_t bytes);

  int fd_ = -1;
  std::string input_;
  std::string received_;  // payload that was received and not returned
  std::string header_;
  std::string body_;
};

// The header of a masked frame; the mask is zero, so that the payload is sent as it is.
std::string FrameHeader(int opcode, std::uint64_t payload_bytes, bool is_last = true);

}  // namespace vexa::test
