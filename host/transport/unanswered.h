// Records which hosts did not answer, for callers that only see the combined result.
#pragma once

#include <set>
#include <string>

namespace vexa::transport {

// While a scope lives, it collects the ids of the hosts that gave no successful reply to the calls of its thread.
// Scopes of one thread may nest; the innermost one collects. Threads: one.
class UnansweredScope {
 public:
  UnansweredScope();
  ~UnansweredScope();
  UnansweredScope(const UnansweredScope&) = delete;
  UnansweredScope& operator=(const UnansweredScope&) = delete;

  const std::set<std::string>& hosts() const { return hosts_; }

  // Adds the host to the thread's innermost scope, if there is one. May throw std::bad_alloc.
  static void Note(const std::string& host_id);

 private:
  std::set<std::string> hosts_;
  UnansweredScope* const outer_;
};

}  // namespace vexa::transport
