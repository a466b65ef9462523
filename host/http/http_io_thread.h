// One I/O thread: its event loop and the connections that live on it.
#pragma once

#include <array>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <ctime>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "host/http/http_mailbox.h"
#include "host/http/http_shared.h"

namespace vexa::http {

class Connection;

// Threads: the server calls Start, Join, Post, the constructor and the destructor; only the I/O thread itself calls the
// rest.
class IoThread {
 public:
  // `on_drained` is called once: after BeginStop(), when no connection has work left to do.
  IoThread(ServerShared& server, int number, std::function<void()> on_drained);
  ~IoThread();
  IoThread(const IoThread&) = delete;
  IoThread& operator=(const IoThread&) = delete;

  void Start();  // throws std::system_error when a thread cannot be created
  void Join();
  void Post(std::function<void()> work);
  boost::asio::io_context& context() { return context_; }

  void AddConnection(AcceptedConnection&& accepted);
  void BeginStop();
  // Closes every connection and lets the loop end. Returns how many still had work to do.
  std::size_t Abort();

  // Called by connections.
  ServerShared& server() { return server_; }
  bool stopping() const { return stopping_; }
  const std::shared_ptr<Mailbox>& mailbox() const { return mailbox_; }
  std::uint64_t NextRequestNumber() { return ++last_request_; }
  std::string_view Date();
  // Buffers that are shared by all connections, each during one event only, so that idle connections need no memory.
  std::array<char, 64 * 1024>& read_scratch() { return *read_scratch_; }
  std::string& header_scratch() { return header_scratch_; }
  void ConnectionDrained();  // once by each connection, when it has no work left to do
  void ReleaseSlot(std::size_t slot);

 private:
  void Run();
  void Deliver(PendingResponse&& pending);
  void ArmSweep();
  void Sweep();

  ServerShared& server_;
  const int number_;
  std::function<void()> on_drained_;
  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<Executor> work_;
  Timer sweep_timer_;
  bool sweeping_ = false;
  std::shared_ptr<Mailbox> mailbox_;
  std::vector<std::shared_ptr<Connection>> slots_;
  std::vector<std::size_t> free_slots_;
  std::size_t connections_ = 0;
  std::size_t undrained_ = 0;  // connections that may still have work to do
  std::size_t refusals_ = 0;   // connections that exist only to be refused
  bool stopping_ = false;
  std::uint64_t last_request_ = 0;
  std::unique_ptr<std::array<char, 64 * 1024>> read_scratch_;
  std::string header_scratch_;
  std::time_t date_time_ = 0;
  std::string date_;
  std::thread thread_;
};

}  // namespace vexa::http
