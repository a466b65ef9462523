// Maps a mode of the hypervisor to a libvirt driver. For host/hypervisor/*.cpp only.
#pragma once

#include <memory>
#include <string>

#include "host/hypervisor/hypervisor.h"

namespace vexa::hypervisor {

enum class DriverKind { kTest, kEmbed, kUri };

// The driver to open, and what must exist while it is in use.
struct DriverTarget {
  DriverKind kind = DriverKind::kTest;
  std::string uri;
  std::shared_ptr<const int> node_file;  // open file that a test URI refers to; keep it while the URI is in use
  std::string root;                      // for embed

  // Whether the driver runs without the rights of a system service, and so without cgroups of its own.
  bool IsUnprivileged() const {
    return kind == DriverKind::kEmbed ||
           (kind == DriverKind::kUri && uri.substr(0, uri.find('?')).ends_with("/session"));
  }
};

// Whether the driver of this URI runs in this process.
bool IsEmbedded(const std::string& uri);

// Failures: kInvalid, kDenied, kFailed. Does not touch any connection; creates the root for embed.
Result<DriverTarget, Failure> ResolveDriver(const HypervisorOptions& options);

// The hardware of this machine as the test driver's <node> XML.
std::string TestNodeXml();

}  // namespace vexa::hypervisor
