#include "host/hypervisor/domain_list.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>

#include "host/hypervisor/handles.h"

namespace vexa::hypervisor {
namespace {

// For a libvirt call of this thread that has failed.
Error LibvirtError(std::string message) {
  const char* const cause = virGetLastErrorMessage();
  return Error(ErrorCode::kUnavailable, std::move(message), cause != nullptr ? cause : "");
}

Result<InactiveDomain> ReadDomain(virDomainPtr domain, unsigned int flags) {
  InactiveDomain result;
  if (const char* const name = virDomainGetName(domain)) result.name = name;
  std::array<char, VIR_UUID_STRING_BUFLEN> id{};
  const StringHandle xml(virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE | flags));
  if (!xml || virDomainGetUUIDString(domain, id.data()) != 0) {
    return LibvirtError(fmt::format("Cannot read the XML of the domain '{}'", result.name));
  }
  int autostart = 0;
  // Transient domains, and drivers without autostart, do not have this flag.
  if (virDomainGetAutostart(domain, &autostart) != 0) {
    const int code = virGetLastErrorCode();
    if (code != VIR_ERR_OPERATION_INVALID && code != VIR_ERR_NO_SUPPORT) {
      return LibvirtError(fmt::format("Cannot read whether the domain '{}' starts automatically", result.name));
    }
    autostart = 0;
  }
  result.autostart = autostart != 0;
  result.id = id.data();
  result.xml = xml.get();
  return result;
}

}  // namespace

class DomainConnection::Impl {
 public:
  Impl(ConnectHandle opened, unsigned int flags) : connection(std::move(opened)), xml_flags(flags) {}
  ConnectHandle connection;
  unsigned int xml_flags;
};

DomainConnection::DomainConnection(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
DomainConnection::~DomainConnection() = default;

Result<std::unique_ptr<DomainConnection>> DomainConnection::Open(const std::string& uri) {
  if (uri.empty()) return Error(ErrorCode::kInvalid, "The libvirt URI is empty. Use one such as 'qemu:///system'");
  // Errors are returned as results; libvirt would also print them to stderr.
  virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
  if (virInitialize() != 0) return LibvirtError("Cannot use libvirt");
  // Screen passwords are part of the definition, which libvirt shows to callers that may change it.
  unsigned int flags = VIR_DOMAIN_XML_SECURE;
  ConnectHandle connection(virConnectOpen(uri.c_str()));
  if (!connection) {
    flags = 0;
    connection.reset(virConnectOpenReadOnly(uri.c_str()));
  }
  if (!connection) return LibvirtError(fmt::format("Cannot connect to libvirt at '{}'", uri));
  return std::unique_ptr<DomainConnection>(new DomainConnection(std::make_unique<Impl>(std::move(connection), flags)));
}

Result<std::vector<InactiveDomain>> DomainConnection::List() const {
  virDomainPtr* raw = nullptr;
  const int count = virConnectListAllDomains(impl_->connection.get(), &raw, 0);
  if (count < 0) return LibvirtError("Cannot list the domains");
  std::vector<DomainHandle> domains(raw, raw + count);
  std::free(raw);

  std::vector<InactiveDomain> result;
  for (const DomainHandle& domain : domains) {
    Result<InactiveDomain> read = ReadDomain(domain.get(), impl_->xml_flags);
    if (read) {
      result.push_back(std::move(*read));
    } else if (virGetLastErrorCode() != VIR_ERR_NO_DOMAIN) {
      return read.error();
    }
  }
  std::sort(result.begin(), result.end(),
            [](const InactiveDomain& left, const InactiveDomain& right) { return left.name < right.name; });
  return result;
}

Result<std::uint64_t> DomainConnection::DiskSize(const std::string& id, const std::string& path) const {
  const DomainHandle domain(virDomainLookupByUUIDString(impl_->connection.get(), id.c_str()));
  virDomainBlockInfo info{};
  if (!domain || virDomainGetBlockInfo(domain.get(), path.c_str(), &info, 0) != 0) {
    return LibvirtError(fmt::format("libvirt does not report the size of '{}'", path));
  }
  return info.capacity;
}

}  // namespace vexa::hypervisor
