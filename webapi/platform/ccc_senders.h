// Cluster control: sending requests to hosts.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "webapi/platform/dr.h"

#pragma GCC visibility push(default)

namespace VexaCCC {

// Sends to one host and waits for its reply. The local host is called in this process.
// Threads: one at a time.
class Sender : public VexaDRNode::BaseSender {
 public:
  // Addresses no host: every request fails until setHost.
  Sender();
  explicit Sender(const std::string& host_id);
  static Sender localhost();
  void setHost(const std::string& host_id);

  // A failure of any kind is a failed reply: code 102 for an empty, unknown or unreachable host, and for one that did
  // not answer in time or not in JSON.
  VexaDRCore::Response process(const VexaDRCore::Request& request);

 private:
  std::string host_id_;
};

// The replies of several hosts.
class MultiResponse {
 public:
  MultiResponse() = default;
  MultiResponse(std::vector<std::string> host_ids, std::map<std::string, VexaDRCore::Response> responses);

  // In the order in which the hosts were given.
  std::vector<std::string> getHostList() const;
  // An empty response for a host that was not asked.
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
  // Every host of the cluster; none when they cannot be listed.
  static MultiSender allHosts();

  // Returns when every host has answered, failed or timed out.
  MultiResponse process(const VexaDRCore::Request& request);

 private:
  std::vector<std::string> host_ids_;
};

}  // namespace VexaCCC

#pragma GCC visibility pop
