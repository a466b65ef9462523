// Copies the bytes of a tunnel in both directions.
#pragma once

#include <boost/asio/posix/basic_stream_descriptor.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "host/http/http_client_side.h"
#include "host/http/http_shared.h"
#include "host/http/http_tunnel.h"

namespace vexa::http {

// Threads: the connection's I/O thread.
class TunnelPump : public std::enable_shared_from_this<TunnelPump> {
 public:
  using Clock = std::chrono::steady_clock;

  // `on_end` is called once, when the connection should be closed. It must not be needed for Abandon().
  TunnelPump(StreamSocket& socket, std::unique_ptr<ClientSide> client, Tunnel&& tunnel, std::function<void()> on_end);
  ~TunnelPump();

  // Throws when the other end's descriptor cannot be waited for.
  void Start();
  // Called about twice a second while the socket is open.
  void OnSweep(Clock::time_point now);
  // Says farewell to the client and ends, at the latest after a short time.
  void Close(TunnelClose why);
  // Ends without another callback. The caller closes the connection.
  void Abandon();

 private:
  using Waiter = boost::asio::posix::basic_stream_descriptor<Executor>;

  void ReadClient();
  void WriteEnd(std::string_view bytes);
  void ReadEnd();
  void Wait(Waiter::wait_type type, std::function<void()> then);
  void RecordBytes() { moved_at_ = Clock::now(); }
  void End();
  bool IsActive() const { return on_end_ != nullptr && !is_closing_; }

  bool HasClientLeft();

  StreamSocket& socket_;
  std::unique_ptr<ClientSide> client_;
  Tunnel tunnel_;
  std::function<void()> on_end_;  // null: ended
  Waiter end_;
  std::vector<char> from_client_;
  std::vector<char> to_client_;
  bool is_closing_ = false;
  Clock::time_point moved_at_;
  Clock::time_point write_since_ = Clock::time_point::max();    // the write to the client that is under way
  Clock::time_point blocked_since_ = Clock::time_point::max();  // the other end takes none of what the client sent
  Clock::time_point close_by_ = Clock::time_point::max();
};

}  // namespace vexa::http
