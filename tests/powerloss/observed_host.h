// What a host's users see of it, and what its folders of images contain.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/http_client.h"
#include "tests/support/process.h"

namespace vexa::powerloss {

struct HostFacts {
  std::vector<std::string> facts;  // one line each; what must be as before or after a change
  std::vector<std::string> log;    // the cluster log, the oldest entry first
};

// The daemon with a data folder, disks and an old account file below `folder`, and a socket outside of it.
class ObservedHost {
 public:
  ObservedHost(std::string folder, std::string socket);

  // The daemon's command.
  test::ProcessOptions Program() const;
  // False: it has ended, or is not ready in time.
  static bool WaitUntilReady(test::Process& daemon);

  // `tokens`: of logins, whose validity is a fact as well.
  HostFacts Observe(const std::vector<std::string>& tokens) const;
  // A reply to a request as an administrator, or as the owner of `token`.
  test::HttpReply Call(const std::string& method, const std::string& parameters, const std::string& token = "") const;

  std::string Images() const { return folder_ + "/images"; }
  const std::string& socket() const { return socket_; }

 private:
  const std::string folder_;
  const std::string socket_;
};

}  // namespace vexa::powerloss
