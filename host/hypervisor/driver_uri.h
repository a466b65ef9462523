// Maps a mode of the hypervisor to a libvirt driver. For host/hypervisor/*.cpp only.
#pragma once

#include <memory>
#include <string>

#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

enum class TargetKind { kTest, kEmbed, kUri };

struct Target {
  TargetKind kind = TargetKind::kTest;
  std::string uri;
  std::shared_ptr<const int> node_file;  // the file that a test URI refers to; open for as long as it is used
  std::string root;                      // for embed

  // Whether its driver runs without the rights of a system service, and so without cgroups of its own.
  bool IsUnprivileged() const {
    return kind == TargetKind::kEmbed ||
           (kind == TargetKind::kUri && uri.substr(0, uri.find('?')).ends_with("/session"));
  }
};

// Failures: kInvalid, kDenied, kFailed. Does not touch any connection; creates the root for embed.
Outcome<Target> MakeTarget(const HypervisorOptions& options);

// The properties of this machine in the test driver's format.
std::string TestNodeXml();

}  // namespace vexa::hypervisor
