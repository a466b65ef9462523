#include "host/http/http_mailbox.h"

#include <boost/asio/post.hpp>

namespace vexa::daemon {

void Mailbox::Put(Answer answer) {
  const std::lock_guard lock(mutex_);
  if (context_ == nullptr) return;
  waiting_.push_back(std::move(answer));
  // One wake-up for all answers that gather until the I/O thread runs.
  if (waiting_.size() == 1) boost::asio::post(*context_, [self = shared_from_this()] { self->Deliver(); });
}

void Mailbox::Deliver() {
  {
    const std::lock_guard lock(mutex_);
    if (context_ == nullptr) return;
    delivering_.swap(waiting_);
  }
  for (Answer& answer : delivering_) deliver_(std::move(answer));
  delivering_.clear();
}

void Mailbox::Close() {
  std::vector<Answer> dropped;
  const std::lock_guard lock(mutex_);
  context_ = nullptr;
  dropped.swap(waiting_);
}

Responder::Impl::~Impl() {
  if (!sent_.load(std::memory_order_relaxed)) mailbox_->Put(Answer{slot_, request_, std::nullopt});
}

void Responder::Impl::Send(HttpResponse&& response) {
  if (!sent_.exchange(true)) mailbox_->Put(Answer{slot_, request_, std::move(response)});
}

void Responder::Send(HttpResponse response) const {
  if (impl_) impl_->Send(std::move(response));
}

}  // namespace vexa::daemon
