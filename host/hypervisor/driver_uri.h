// Which libvirt driver a mode of the hypervisor means. For host/hypervisor/*.cpp only.
#pragma once

#include <memory>
#include <string>

#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

enum class TargetKind { kTest, kEmbed, kUri };

struct Target {
  TargetKind kind = TargetKind::kTest;
  std::string uri;
  std::shared_ptr<const int> node_file;  // what a test URI leads to, open for as long as it is used
  std::string root;                      // of embed

  // Whether its driver runs without the rights of a service of the system, and so without cgroups of its own.
  bool IsUnprivileged() const {
    return kind == TargetKind::kEmbed ||
           (kind == TargetKind::kUri && uri.substr(0, uri.find('?')).ends_with("/session"));
  }
};

// Failures: kInvalid, kDenied, kFailed. Touches no connection; the root of embed is made.
Outcome<Target> MakeTarget(const HypervisorOptions& options);

// The figures of this machine as the test driver reads them.
std::string TestNodeXml();

}  // namespace vexa::hypervisor
