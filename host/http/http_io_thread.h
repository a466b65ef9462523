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

namespace vexa::daemon {

class Connection;

// Threads: the server calls Start, Join, Post, the constructor and the destructor; only the I/O thread itself calls the
// rest.
class IoThread {
 public:
  // `on_settled` is called once, when BeginStop() has left no connection with work to do.
  IoThread(ServerShared& server, int number, std::function<void()> on_settled);
  ~IoThread();
  IoThread(const IoThread&) = delete;
  IoThread& operator=(const IoThread&) = delete;

  void Start();  // throws std::system_error when a thread cannot be created
  void Join();
  void Post(std::function<void()> work);
  boost::asio::io_context& context() { return context_; }

  void Adopt(Accepted&& accepted);
  void BeginStop();
  // Closes every connection and lets the loop end. Returns how many still had work to do.
  std::size_t Abort();

  // For connections.
  ServerShared& server() { return server_; }
  bool stopping() const { return stopping_; }
  const std::shared_ptr<Mailbox>& mailbox() const { return mailbox_; }
  std::uint64_t NextRequest() { return ++last_request_; }
  std::string_view Date();
  // Memory that one connection at a time uses during one event, so that idle connections need none.
  std::array<char, 64 * 1024>& read_scratch() { return *read_scratch_; }
  std::string& head_scratch() { return head_scratch_; }
  void Settled();
  void Forget(std::size_t slot);

 private:
  void Run();
  void Deliver(Answer&& answer);
  void ArmSweep();
  void Sweep();

  ServerShared& server_;
  const int number_;
  std::function<void()> on_settled_;
  boost::asio::io_context context_{1};
  boost::asio::executor_work_guard<Executor> work_;
  Timer sweep_timer_;
  bool sweeping_ = false;
  std::shared_ptr<Mailbox> mailbox_;
  std::vector<std::shared_ptr<Connection>> slots_;
  std::vector<std::size_t> free_slots_;
  std::size_t connections_ = 0;
  std::size_t unsettled_ = 0;
  std::size_t refusals_ = 0;  // connections that exist only to be refused
  bool stopping_ = false;
  std::uint64_t last_request_ = 0;
  std::unique_ptr<std::array<char, 64 * 1024>> read_scratch_;
  std::string head_scratch_;
  std::time_t date_time_ = 0;
  std::string date_;
  std::thread thread_;
};

}  // namespace vexa::daemon
