// Records which hosts did not answer a call, for callers that only see the combined result of all hosts.
#pragma once

#include <json/value.h>

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
  // What the last host that refused a parameter (host_error::kBadParameter, kBadNic) said about it; "": none has.
  const std::string& bad_parameter() const { return bad_parameter_; }
  // What the last call without a success says about its failure; "": nothing.
  const std::string& last_reason() const { return last_reason_; }
  // The host and the code of that call; "" and 0: every call has succeeded. The code is kUnreachable when no reply
  // came.
  const std::string& last_host() const { return last_host_; }
  int last_code() const { return last_code_; }

  // Adds the host and its reply to the thread's innermost scope, if there is one. May throw std::bad_alloc.
  static void Add(const std::string& host_id, const Json::Value& reply);

 private:
  std::set<std::string> hosts_;
  std::string bad_parameter_;
  std::string last_reason_;
  std::string last_host_;
  int last_code_ = 0;
  FailedHostsScope* const outer_;
};

}  // namespace vexa::transport
