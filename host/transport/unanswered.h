// Records which hosts did not answer a call, for callers that only see the combined result of all hosts.
#pragma once

#include <set>
#include <string>

#include "host/base/not_copyable.h"

namespace vexa::transport {

// While a scope lives, it collects the ids of the hosts that gave no successful reply to the calls of its thread.
// Scopes of one thread may nest; the innermost one collects. Threads: one.
class FailedHostsScope : private NotCopyable {
 public:
  FailedHostsScope();
  ~FailedHostsScope();

  const std::set<std::string>& hosts() const { return hosts_; }

  // Adds the host to the thread's innermost scope, if there is one. May throw std::bad_alloc.
  static void Add(const std::string& host_id);

 private:
  std::set<std::string> hosts_;
  FailedHostsScope* const outer_;
};

}  // namespace vexa::transport
