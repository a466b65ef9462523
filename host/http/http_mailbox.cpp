#include "host/http/http_mailbox.h"

#include <boost/asio/post.hpp>

namespace vexa::http {

void Mailbox::Put(PendingResponse pending) {
  const MutexLock lock(mutex_);
  if (context_ == nullptr) return;
  pending_.push_back(std::move(pending));
  // One wake-up for all responses that are put until the I/O thread runs.
  if (pending_.size() == 1) boost::asio::post(*context_, [self = shared_from_this()] { self->Deliver(); });
}

void Mailbox::Deliver() {
  {
    const MutexLock lock(mutex_);
    if (context_ == nullptr) return;
    delivering_.swap(pending_);
  }
  for (PendingResponse& pending : delivering_) deliver_(std::move(pending));
  delivering_.clear();
}

void Mailbox::Close() {
  std::vector<PendingResponse> dropped;
  const MutexLock lock(mutex_);
  context_ = nullptr;
  dropped.swap(pending_);
}

Responder::Impl::~Impl() {
  if (!sent_.load(std::memory_order_relaxed)) mailbox_->Put(PendingResponse{slot_, request_number_, std::nullopt});
}

void Responder::Impl::Send(HttpResponse&& response) {
  if (!sent_.exchange(true)) mailbox_->Put(PendingResponse{slot_, request_number_, std::move(response)});
}

void Responder::Send(HttpResponse response) const {
  if (impl_) impl_->Send(std::move(response));
}

}  // namespace vexa::http
