// Cluster control: sending requests to hosts.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "webapi/platform/dr.h"

#pragma GCC visibility push(default)

namespace VexaCCC {

// Sends requests to one host and waits for the replies. The local host is called within this process.
// Threads: one at a time.
class Sender : public VexaDRNode::BaseSender {
 public:
  // A sender without a host: every request fails until setHost is called.
  Sender();
  explicit Sender(const std::string& host_id);
  static Sender localhost();
  void setHost(const std::string& host_id);

  // Every failure is returned as a failed reply. Its code is 102 when the host id is empty or unknown, the host is
  // unreachable, or it did not reply in time or not in JSON.
  VexaDRCore::Response process(const VexaDRCore::Request& request);

 private:
  std::string host_id_;
};

// The replies of several hosts.
class MultiResponse {
 public:
  MultiResponse() = default;
  MultiResponse(std::vector<std::string> host_ids, std::map<std::string, VexaDRCore::Response> responses);

  // The ids of the hosts, in the order in which they were given to the sender.
  std::vector<std::string> getHostList() const;
  // An empty response for a host that the request was not sent to.
  VexaDRCore::Response getResponse(const std::string& host_id) const;

 private:
  std::vector<std::string> host_ids_;
  std::map<std::string, VexaDRCore::Response> responses_;
};

// Sends the same request to several hosts concurrently.
// Threads: one at a time.
class MultiSender {
 public:
  explicit MultiSender(const std::vector<std::string>& host_ids);
  // A sender to every host of the cluster; to none when the hosts cannot be listed.
  static MultiSender allHosts();

  // Returns when every host has replied, failed or timed out.
  MultiResponse process(const VexaDRCore::Request& request);

 private:
  std::vector<std::string> host_ids_;
};

}  // namespace VexaCCC

#pragma GCC visibility pop
