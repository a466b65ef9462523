#include "tests/support/libvirt_user.h"

#include <libvirt/libvirt.h>
#include <libvirt/virterror.h>
#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <memory>
#include <sstream>

namespace vexa::test {
namespace {

struct Close {
  void operator()(virConnectPtr connection) const { virConnectClose(connection); }
};
struct Free {
  void operator()(virDomainPtr domain) const { virDomainFree(domain); }
};
using Connection = std::unique_ptr<virConnect, Close>;
using Domain = std::unique_ptr<virDomain, Free>;

std::string Why() {
  const char* const message = virGetLastErrorMessage();
  return message != nullptr && *message != '\0' ? message : "libvirt says nothing";
}

Connection Connect(const std::string& uri) {
  return Connection(virConnectOpenAuth(uri.c_str(), virConnectAuthPtrDefault, 0));
}

// The result of `call` for the domain; `otherwise` when it does not exist.
template <class T>
T CallOnDomain(const std::string& uri, const std::string& id, T otherwise, const std::function<T(virDomainPtr)>& call) {
  const Connection connection = Connect(uri);
  if (!connection) return otherwise;
  const Domain domain(virDomainLookupByUUIDString(connection.get(), id.c_str()));
  return domain ? call(domain.get()) : otherwise;
}

std::string Act(const std::string& uri, const std::string& id, const std::function<int(virDomainPtr)>& call) {
  const Connection connection = Connect(uri);
  const Domain domain(connection ? virDomainLookupByUUIDString(connection.get(), id.c_str()) : nullptr);
  return domain && call(domain.get()) == 0 ? "" : Why();
}

void AddDisk(std::ostream& xml, const std::string& path, char letter, bool is_shared) {
  xml << "<disk type='file' device='disk'><driver name='qemu' type='raw' cache='"
      << (is_shared ? "none" : "writethrough") << "'/><source file='" << path << "'/><target dev='vd" << letter
      << "' bus='virtio'/>" << (is_shared ? "<shareable/>" : "") << (letter == 'a' ? "<boot order='1'/>" : "")
      << "</disk>\n";
}

}  // namespace

std::string UserDomainXml(const UserDomain& domain) {
  std::ostringstream xml;
  const bool uefi = domain.firmware == UserDomain::Firmware::kUefi;
  xml << "<domain type='qemu'><name>" << domain.name << "</name><uuid>" << domain.id << "</uuid>\n"
      << "<title>The owner's own title</title>\n"
      << "<metadata><note xmlns='urn:owner:note' colour='green'>Keep me</note></metadata>\n"
      << "<memory unit='MiB'>192</memory><vcpu>1</vcpu>\n"
      << (uefi ? "<os firmware='efi'>" : "<os>") << "<type arch='x86_64' machine='q35'>hvm</type>"
      << (uefi ? "<firmware><feature enabled='no' name='secure-boot'/></firmware>" : "") << "</os>\n"
      << "<features><acpi/><apic/></features><clock offset='localtime'/>\n<devices>\n";
  AddDisk(xml, domain.boot_image, 'a', false);
  char letter = 'b';
  for (const std::string& disk : domain.disks) {
    AddDisk(xml, disk, letter++, std::ranges::count(domain.disks, disk) > 1);
  }
  xml << "<sound model='ich9'/>\n<channel type='unix'><target type='virtio' "
         "name='org.qemu.guest_agent.0'/></channel>\n";
  if (domain.screen.empty()) {
    xml << "<graphics type='vnc' port='5999' autoport='no' listen='192.0.2.99'/>\n";
  } else {
    xml << "<graphics type='vnc' socket='" << domain.screen << "'/>\n";
  }
  xml << "<video><model type='vga'/></video>\n</devices></domain>\n";
  return xml.str();
}

std::string MissingUserElements(const std::string& xml) {
  std::string lost;
  for (const char* const part : {"The owner&apos;s own title", "urn:owner:note", "Keep me", "colour=", "'localtime'",
                                 "<sound model='ich9'", "cache='writethrough'", "<graphics type='vnc'"}) {
    if (xml.find(part) == std::string::npos) lost += std::string(part) + "\n";
  }
  const bool has_screen = xml.find("socket=") != std::string::npos || xml.find("192.0.2.99") != std::string::npos;
  if (!has_screen) lost += "where the screen is\n";
  return lost;
}

LibvirtUser::LibvirtUser(std::string uri) : uri_(std::move(uri)) {
  ::signal(SIGPIPE, SIG_IGN);
  virSetErrorFunc(nullptr, [](void*, virErrorPtr) {});
}

std::string LibvirtUser::Define(const std::string& xml) const {
  const Connection connection = Connect(uri_);
  const Domain domain(connection ? virDomainDefineXML(connection.get(), xml.c_str()) : nullptr);
  return domain ? "" : Why();
}

std::string LibvirtUser::Undefine(const std::string& id) const {
  return Act(uri_, id, [](virDomainPtr domain) { return virDomainUndefine(domain); });
}

std::string LibvirtUser::Start(const std::string& id) const {
  return Act(uri_, id, [](virDomainPtr domain) { return virDomainCreate(domain); });
}

std::string LibvirtUser::Destroy(const std::string& id) const {
  return Act(uri_, id, [](virDomainPtr domain) { return virDomainDestroy(domain); });
}

std::string LibvirtUser::ManagedSave(const std::string& id) const {
  return Act(uri_, id, [](virDomainPtr domain) { return virDomainManagedSave(domain, 0); });
}

std::string LibvirtUser::ChangeMedium(const std::string& id, const std::string& from, const std::string& to) const {
  return Act(uri_, id, [&](virDomainPtr domain) {
    char* const text = virDomainGetXMLDesc(domain, 0);
    const std::string xml = text != nullptr ? text : "";
    std::free(text);
    const std::size_t file = xml.find("file='" + from + "'");
    const std::size_t begin = xml.rfind("<disk ", file);
    const std::size_t end = xml.find("</disk>", file);
    if (file == std::string::npos || begin == std::string::npos || end == std::string::npos) return -1;
    std::string drive = xml.substr(begin, end - begin) + "</disk>";
    drive.replace(drive.find(from), from.size(), to);
    constexpr unsigned kFlags = unsigned{VIR_DOMAIN_AFFECT_LIVE} | unsigned{VIR_DOMAIN_DEVICE_MODIFY_FORCE};
    return virDomainUpdateDeviceFlags(domain, drive.c_str(), kFlags);
  });
}

std::string LibvirtUser::EnableAutostart(const std::string& id) const {
  return Act(uri_, id, [](virDomainPtr domain) { return virDomainSetAutostart(domain, 1); });
}

std::string LibvirtUser::Xml(const std::string& id) const {
  return CallOnDomain<std::string>(uri_, id, "", [](virDomainPtr domain) {
    char* const text = virDomainGetXMLDesc(domain, VIR_DOMAIN_XML_INACTIVE | VIR_DOMAIN_XML_SECURE);
    std::string xml = text != nullptr ? text : "";
    std::free(text);
    return xml;
  });
}

std::string LibvirtUser::RunningXml(const std::string& id) const {
  return CallOnDomain<std::string>(uri_, id, "", [](virDomainPtr domain) {
    char* const text = virDomainIsActive(domain) == 1 ? virDomainGetXMLDesc(domain, 0) : nullptr;
    std::string xml = text != nullptr ? text : "";
    std::free(text);
    return xml;
  });
}

std::string LibvirtUser::Snapshot(const std::string& id) const {
  return Xml(id) + (IsAutostarting(id) ? "autostart, " : "no autostart, ") + (IsActive(id) ? "active" : "inactive") +
         (IsSaved(id) ? ", saved" : "");
}

std::string LibvirtUser::State(const std::string& id) const {
  return CallOnDomain<std::string>(uri_, id, "", [](virDomainPtr domain) -> std::string {
    int state = VIR_DOMAIN_NOSTATE;
    if (virDomainGetState(domain, &state, nullptr, 0) != 0) return "";
    switch (state) {
      case VIR_DOMAIN_RUNNING:
        return "running";
      case VIR_DOMAIN_PAUSED:
        return "paused";
      case VIR_DOMAIN_SHUTOFF:
        return "shut off";
      default:
        return "state " + std::to_string(state);
    }
  });
}

std::optional<std::chrono::milliseconds> LibvirtUser::GuestTime(const std::string& id) const {
  using Time = std::optional<std::chrono::milliseconds>;
  return CallOnDomain<Time>(uri_, id, std::nullopt, [](virDomainPtr domain) -> Time {
    long long seconds = 0;
    unsigned nanoseconds = 0;
    if (virDomainGetTime(domain, &seconds, &nanoseconds, 0) != 0) return std::nullopt;
    return std::chrono::milliseconds(seconds * 1000 + nanoseconds / 1'000'000);
  });
}

bool LibvirtUser::IsActive(const std::string& id) const {
  return CallOnDomain<bool>(uri_, id, false, [](virDomainPtr domain) { return virDomainIsActive(domain) == 1; });
}

bool LibvirtUser::IsSaved(const std::string& id) const {
  return CallOnDomain<bool>(uri_, id, false,
                            [](virDomainPtr domain) { return virDomainHasManagedSaveImage(domain, 0) == 1; });
}

bool LibvirtUser::IsAutostarting(const std::string& id) const {
  return CallOnDomain<bool>(uri_, id, false, [](virDomainPtr domain) {
    int autostart = 0;
    return virDomainGetAutostart(domain, &autostart) == 0 && autostart == 1;
  });
}

}  // namespace vexa::test
