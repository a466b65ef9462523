#include "host/transport/unanswered.h"

namespace vexa::transport {
namespace {

thread_local UnansweredScope* innermost = nullptr;

}  // namespace

UnansweredScope::UnansweredScope() : outer_(innermost) { innermost = this; }
UnansweredScope::~UnansweredScope() { innermost = outer_; }

void UnansweredScope::Note(const std::string& host_id) {
  if (innermost != nullptr) innermost->hosts_.insert(host_id);
}

}  // namespace vexa::transport
