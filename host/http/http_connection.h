// One client connection, from the first byte to the last. Its requests are answered one after another.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/http/http_mailbox.h"
#include "host/http/http_parser.h"
#include "host/http/http_shared.h"
#include "host/http/http_transport.h"
#include "host/http/http_tunnel_pump.h"

namespace vexa::http {

class IoThread;

// Threads: its I/O thread only, which also owns every reference to it. Other threads identify it by slot and request
// number (see Mailbox).
class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Clock = std::chrono::steady_clock;

  Connection(IoThread& io, std::size_t slot, AcceptedConnection&& accepted);
  ~Connection();

  void Start();
  void Deliver(PendingResponse&& pending);
  // Called about twice a second.
  void OnSweep(Clock::time_point now);
  // Closes when idle; otherwise the current request is the last one.
  void BeginStop();
  void Close();

  // Over the connection limit: exists only to be refused with 503.
  bool is_refusal() const { return is_refusal_; }

 private:
  enum class Phase {
    kHandshake,
    kHeader,   // waits for a request or the rest of its header
    kBody,     // waits for the rest of its body
    kHandler,  // waits for the response of the handler
    kWrite,    // sends the response
    kTunnel,   // has left HTTP: the bytes are those of `tunnel_`
    kLinger,   // has sent its last byte; still reads for a while, because closing now could destroy what was sent
    kClosed,
  };

  // Input
  void OnReadable();
  void OnWritable();
  void ArmRead();
  void ArmWrite();
  void Handshake();
  void ReadInput();
  void OnPeerEnd();
  void ConsumeInput(std::string_view input);
  std::size_t ProcessInput(std::string_view bytes);
  std::size_t ProcessHeader(std::string_view bytes);
  std::size_t ProcessBody(std::string_view bytes);
  void BeginRequest(std::string_view header);
  void Dispatch();
  bool AwaitsInput() const { return phase_ == Phase::kHeader || phase_ == Phase::kBody; }

  // Output
  void Refuse(int status);
  void RefuseAsBusy();
  void Respond(HttpResponse&& response);
  struct Body {
    std::string own;
    std::shared_ptr<const std::string> shared;  // instead of `own`
    std::string_view text() const { return shared ? std::string_view(*shared) : own; }
  };
  void Send(std::string_view header, Body&& body);
  IoState WriteAll(std::string_view& header, std::string_view& body);
  bool Flush();
  bool HasOutput() const { return !out_header_.empty() || !out_body_.text().empty(); }
  void FinishResponse();
  void ResumeInput();
  void StartTunnel(Tunnel&& tunnel);

  // The place among the server's connections
  bool ClaimPlace();
  void OnEvicted(EvictionReason reason);
  void ReportState();
  void SetOwner(const Owner& owner);
  void CheckOwner(Clock::time_point now);
  void RecordProgress() { progress_at_ = Clock::now(); }
  ConnectionActivity Activity() const;
  std::size_t HeldBytes() const;

  // Phases
  void OnDeadline();
  void EnterHeader(std::chrono::milliseconds timeout);
  void StartLinger();
  void Linger();
  void ReportDrained();
  void SetDeadline(std::chrono::milliseconds timeout) { deadline_ = Clock::now() + timeout; }
  std::string request_id() const { return std::string(request_id_.data(), request_id_.size()); }
  void NewRequest();

  IoThread& io_;
  const std::size_t slot_;
  std::unique_ptr<ConnectionPlace> place_;
  const bool is_refusal_;
  Peer peer_;
  StreamSocket socket_;
  Transport transport_;

  Phase phase_ = Phase::kHeader;
  Clock::time_point deadline_ = Clock::time_point::max();
  bool read_armed_ = false;
  bool write_armed_ = false;
  bool read_wants_write_ = false;  // TLS only
  bool write_wants_read_ = false;  // TLS only
  bool reading_paused_ = false;    // because `buffer_` has reached its limit
  bool peer_ended_ = false;        // a TCP or Unix peer has shut down its sending side; it may still read
  bool drained_reported_ = false;

  std::string buffer_;           // input that could not be processed yet
  std::size_t header_scan_ = 0;  // where the search for the end of the header continues
  bool header_started_ = false;
  std::unique_ptr<RequestParser> parser_;
  std::size_t header_bytes_ = 0;  // of the request in `parser_`
  bool must_send_continue_ = false;

  std::uint64_t request_number_ = 0;
  std::array<char, 16> request_id_{};
  bool http_1_0_ = false;
  bool is_head_request_ = false;
  bool close_after_response_ = false;

  std::string upgrade_;  // what the request that is being answered asked for
  std::string websocket_key_;
  std::shared_ptr<TunnelPump> tunnel_;

  std::string out_header_;
  Body out_body_;
  std::size_t out_body_sent_ = 0;
  std::size_t lingered_bytes_ = 0;

  // As last reported to `place_`.
  ConnectionActivity activity_ = ConnectionActivity::kIdle;
  std::size_t held_bytes_ = 0;
  std::function<bool()> is_owner_current_;
  Clock::time_point check_owner_at_ = Clock::time_point::max();
  Clock::time_point progress_at_;  // when a request or its response last moved on
};

}  // namespace vexa::http
