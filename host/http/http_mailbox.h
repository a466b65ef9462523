// The way back for answers: from any thread to the I/O thread that owns the connection.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "host/http/http_server.h"

namespace vexa::daemon {

struct Answer {
  std::size_t slot = 0;                  // where the connection is, if it still serves `request`
  std::uint64_t request = 0;             // unique on the I/O thread
  std::optional<HttpResponse> response;  // none: every responder was dropped
};

// Outlives the I/O thread as long as a responder exists. Threads: any.
class Mailbox : public std::enable_shared_from_this<Mailbox> {
 public:
  // `deliver` runs on the thread of `context`, for several answers in a row when they come quickly.
  Mailbox(boost::asio::io_context& context, std::function<void(Answer&&)> deliver)
      : context_(&context), deliver_(std::move(deliver)) {}

  // Does nothing once closed.
  void Put(Answer answer);

  // On the I/O thread. Afterwards neither the context nor `deliver` is touched.
  void Close();

 private:
  void Deliver();

  std::mutex mutex_;
  boost::asio::io_context* context_;  // null once closed
  std::function<void(Answer&&)> deliver_;
  std::vector<Answer> waiting_;
  std::vector<Answer> delivering_;  // I/O thread only; kept to reuse its memory
};

// One request's way back. Destroyed with the last copy of its Responder.
class Responder::Impl {
 public:
  Impl(std::shared_ptr<Mailbox> mailbox, std::size_t slot, std::uint64_t request)
      : mailbox_(std::move(mailbox)), slot_(slot), request_(request) {}
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void Send(HttpResponse&& response);

 private:
  std::shared_ptr<Mailbox> mailbox_;
  std::size_t slot_;
  std::uint64_t request_;
  std::atomic<bool> sent_ = false;
};

}  // namespace vexa::daemon
