#include "host/transport/unanswered.h"

namespace vexa::transport {
namespace {

thread_local FailedHostsScope* innermost = nullptr;

}  // namespace

FailedHostsScope::FailedHostsScope() : outer_(innermost) { innermost = this; }
FailedHostsScope::~FailedHostsScope() { innermost = outer_; }

void FailedHostsScope::Add(const std::string& host_id) {
  if (innermost != nullptr) innermost->hosts_.insert(host_id);
}

}  // namespace vexa::transport
