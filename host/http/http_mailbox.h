// Brings responses from any thread to the I/O thread that owns the connection.
#pragma once

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "host/base/mutex.h"
#include "host/http/http_server.h"

namespace vexa::http {

struct PendingResponse {
  std::size_t slot = 0;                  // of the connection, if it still serves request `request_number`
  std::uint64_t request_number = 0;      // unique on the I/O thread
  std::optional<HttpResponse> response;  // none: every responder was dropped
};

// Outlives the I/O thread as long as a responder exists. Threads: any.
class Mailbox : public std::enable_shared_from_this<Mailbox> {
 public:
  // `deliver` runs on the thread of `context`, once for each response.
  Mailbox(boost::asio::io_context& context, std::function<void(PendingResponse&&)> deliver)
      : context_(&context), deliver_(std::move(deliver)) {}

  // Does nothing once closed.
  void Put(PendingResponse pending);

  // Call on the I/O thread. Afterwards neither the context nor `deliver` is used.
  void Close();

 private:
  void Deliver();

  Mutex mutex_;
  boost::asio::io_context* context_ VEXA_GUARDED_BY(mutex_);  // null once closed
  std::function<void(PendingResponse&&)> deliver_;
  std::vector<PendingResponse> pending_ VEXA_GUARDED_BY(mutex_);
  std::vector<PendingResponse> delivering_;  // I/O thread only; kept to reuse its memory
};

// Sends the response of one request, or a 500 when it is destroyed without one. Destroyed with the last copy of its
// Responder.
class Responder::Impl {
 public:
  Impl(std::shared_ptr<Mailbox> mailbox, std::size_t slot, std::uint64_t request_number)
      : mailbox_(std::move(mailbox)), slot_(slot), request_number_(request_number) {}
  ~Impl();
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  void Send(HttpResponse&& response);

 private:
  std::shared_ptr<Mailbox> mailbox_;
  std::size_t slot_;
  std::uint64_t request_number_;
  std::atomic<bool> sent_ = false;
};

}  // namespace vexa::http
