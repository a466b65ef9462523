// One client connection and its requests, one after another, from the first byte to the last.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "host/http/http_mailbox.h"
#include "host/http/http_parser.h"
#include "host/http/http_shared.h"
#include "host/http/http_transport.h"

namespace vexa::daemon {

class IoThread;

// Threads: its I/O thread only, which also holds every reference to it. Other threads identify it by slot and request
// number (see Mailbox).
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Clock = std::chrono::steady_clock;

  Connection(IoThread& io, std::size_t slot, Accepted&& accepted);
  ~Connection();

  void Start();
  void Deliver(Answer&& answer);
  Clock::time_point deadline() const { return deadline_; }
  void OnDeadline();
  // Closes when idle; otherwise the current request is the last one.
  void BeginStop();
  void Close();

  // Exists only to receive a refusal because the server is full.
  bool is_refusal() const { return place_ == nullptr && phase_ != Phase::kClosed; }

 private:
  enum class Phase {
    kHandshake,
    kHead,     // waits for a request or the rest of its head
    kBody,     // waits for the rest of its body
    kHandler,  // waits for its answer
    kWrite,    // sends the answer
    kDrain,    // has sent its last byte and reads on for a while, as closing now could destroy what was sent
    kClosed,
  };

  // Input
  void OnReadable();
  void OnWritable();
  void ArmRead();
  void ArmWrite();
  void Handshake();
  void ReadInput();
  void OnEnd();
  void Take(std::string_view fresh);
  std::size_t Process(std::string_view bytes);
  std::size_t ProcessHead(std::string_view bytes);
  std::size_t ProcessBody(std::string_view bytes);
  void BeginRequest(std::string_view head);
  void Dispatch();
  bool AwaitsInput() const { return phase_ == Phase::kHead || phase_ == Phase::kBody; }

  // Output
  void Refuse(int status);
  void Respond(HttpResponse&& response);
  void Send(std::string_view head, std::string&& body);
  IoState WriteAll(std::string_view& head, std::string_view& body);
  bool Flush();
  bool HasOutput() const { return !out_head_.empty() || !out_body_.empty(); }
  void FinishResponse();
  void Continue();

  // Phases
  void EnterHead(std::chrono::milliseconds patience);
  void StartDrain();
  void Drain();
  void Settle();
  void SetDeadline(std::chrono::milliseconds patience) { deadline_ = Clock::now() + patience; }
  std::string request_id() const { return std::string(request_id_.data(), request_id_.size()); }
  void NewRequest();

  IoThread& io_;
  const std::size_t slot_;
  std::unique_ptr<PeerCounter::Place> place_;
  Peer peer_;
  StreamSocket socket_;
  Transport transport_;

  Phase phase_ = Phase::kHead;
  Clock::time_point deadline_ = Clock::time_point::max();
  bool read_armed_ = false;
  bool write_armed_ = false;
  bool read_wants_write_ = false;  // TLS only
  bool write_wants_read_ = false;  // TLS only
  bool paused_ = false;            // not reading, because `buffer_` holds enough
  bool peer_ended_ = false;        // a TCP or Unix peer has shut down its sending side; it may still read
  bool settled_ = false;

  std::string buffer_;         // input that could not be processed yet
  std::size_t head_scan_ = 0;  // where the search for the end of the head continues
  bool head_begun_ = false;
  std::unique_ptr<RequestParser> parser_;
  bool owes_continue_ = false;

  std::uint64_t request_ = 0;
  std::array<char, 16> request_id_{};
  bool http_1_0_ = false;
  bool head_only_ = false;
  bool close_after_ = false;

  std::string out_head_;
  std::string out_body_;
  std::size_t out_body_sent_ = 0;
  std::size_t drained_ = 0;
};

}  // namespace vexa::daemon
