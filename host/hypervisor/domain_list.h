// Lists the domains that a libvirt connection knows, as XML.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::hypervisor {

// A domain with its configuration for the next start, whether it runs or not.
struct InactiveDomain {
  std::string name;
  std::string id;  // UUID
  std::string xml;
  bool autostart = false;
};

// A connection to libvirt that only reads. The XML contains screen passwords where the caller has the right to change
// domains, and lacks them where libvirt grants only reading. Calls block for as long as libvirt does.
// Threads: one at a time.
class DomainConnection {
 public:
  // `uri` is a libvirt URI: "qemu:///system", "test:///default", … It must not be empty, because libvirt would then
  // choose one. Errors: kInvalid (empty), kUnavailable with libvirt's sentence as the cause. Silences libvirt's own
  // printing of errors for the whole process.
  static Result<std::unique_ptr<DomainConnection>> Open(const std::string& uri);
  ~DomainConnection();

  // All domains, running or not, by name. A domain that disappears meanwhile is left out.
  Result<std::vector<InactiveDomain>> List() const;

  // The size in bytes, as the guest sees it, of the disk of domain `id` whose source is `path`, on the machine that the
  // connection leads to. kUnavailable when libvirt does not report it.
  Result<std::uint64_t> DiskSize(const std::string& id, const std::string& path) const;

 private:
  class Impl;
  explicit DomainConnection(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::hypervisor
