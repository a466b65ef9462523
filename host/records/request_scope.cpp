#include "host/records/request_scope.h"

#include <utility>

namespace vexa::records {
namespace {

thread_local RequestScope* current = nullptr;

}  // namespace

RequestScope::RequestScope() : outer_(std::exchange(current, this)), number_(Reader::NewReaderId()) {}

RequestScope::~RequestScope() { current = outer_; }

std::uint64_t RequestScope::Number() { return current ? current->number_ : 0; }

RequestPause::RequestPause() : paused_(std::exchange(current, nullptr)) {
  for (RequestScope* scope = paused_; scope; scope = scope->outer_) scope->reader_.reset();
}

RequestPause::~RequestPause() { current = paused_; }

Result<std::shared_ptr<const Reader>> ReaderOfRequest() {
  if (current && current->reader_) return current->reader_;
  Result<Reader> opened = current ? Reader::OpenCurrent(current->number_) : Reader::OpenCurrent();
  if (!opened) return opened.error();
  auto reader = std::make_shared<const Reader>(std::move(*opened));
  if (current) current->reader_ = reader;
  return reader;
}

}  // namespace vexa::records
