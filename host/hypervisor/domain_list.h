// The domains that a libvirt connection knows, as XML.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/base/result.h"

namespace vexa::hypervisor {

struct DomainText {
  std::string name;
  std::string id;   // UUID
  std::string xml;  // of the inactive domain: what it will be at its next start
  bool autostart = false;
};

// A connection to libvirt that changes nothing. The XML has the passwords of screens where the caller has the right to
// change domains, and lacks them where libvirt only lets it read. Calls block for as long as libvirt does.
// Threads: one at a time.
class DomainConnection {
 public:
  // `uri` as libvirt takes it: "qemu:///system", "test:///default", … Not empty: libvirt would choose one by itself.
  // Errors: kInvalid (empty), kUnavailable with libvirt's sentence as the cause. Silences libvirt's own printing of
  // errors for the whole process.
  static Result<std::unique_ptr<DomainConnection>> Open(const std::string& uri);
  ~DomainConnection();

  // All domains, running or not, by name. A domain that goes away meanwhile is left out.
  Result<std::vector<DomainText>> List() const;

  // The size in bytes, as the guest sees it, of the disk of domain `id` whose source is `path`, on whatever machine the
  // connection leads to. kUnavailable when libvirt does not tell.
  Result<std::uint64_t> DiskSize(const std::string& id, const std::string& path) const;

 private:
  class Impl;
  explicit DomainConnection(std::unique_ptr<Impl> impl);
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::hypervisor
