// A user who works with libvirt directly, beside a host, as with virsh.
#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

namespace vexa::test {

// A domain defined by that user, with much that a guest's records do not cover: a title, metadata, a clock in local
// time, sound, a screen on a socket of their choice, disks with write-through.
struct UserDomain {
  std::string id;  // UUID
  std::string name;
  std::string boot_image;          // its first disk
  std::vector<std::string> disks;  // additional raw disks; a repeated one is shared by two disks
  std::string screen;              // path of the socket; empty: 192.0.2.99, an address that this machine does not have
  enum class Firmware { kBios, kUefi } firmware = Firmware::kBios;
};
std::string UserDomainXml(const UserDomain& domain);
// The parts of UserDomainXml that records do not cover and that are missing in `xml`: a line for each. Empty: none is
// missing.
std::string MissingUserElements(const std::string& xml);

// Each call has a connection of its own, so that libvirtd may come and go. Actions return an empty text, or libvirt's
// sentence. Domains are identified by their ids.
// Threads: one at a time.
class LibvirtUser {
 public:
  explicit LibvirtUser(std::string uri);

  std::string Define(const std::string& xml) const;
  std::string Undefine(const std::string& id) const;
  std::string Start(const std::string& id) const;
  std::string Destroy(const std::string& id) const;
  std::string ManagedSave(const std::string& id) const;
  // Puts another medium into the drive of a running domain that has the file `from`.
  std::string ChangeMedium(const std::string& id, const std::string& from, const std::string& to) const;
  std::string EnableAutostart(const std::string& id) const;  // sets autostart

  // The XML of the inactive domain; empty when libvirt does not know it.
  std::string Xml(const std::string& id) const;
  // The XML of the running domain; empty when it does not run.
  std::string RunningXml(const std::string& id) const;
  // What must stay unchanged in a user's domain, as one text: XML, autostart, whether it runs and is saved.
  std::string Snapshot(const std::string& id) const;
  bool IsKnown(const std::string& id) const { return !Xml(id).empty(); }
  // As `virsh domstate` prints it: "running", "paused", "shut off"; empty when it cannot be read.
  std::string State(const std::string& id) const;
  // The guest's own clock, as its agent reports it. Not set: the agent does not answer.
  std::optional<std::chrono::milliseconds> GuestTime(const std::string& id) const;
  bool IsActive(const std::string& id) const;
  bool IsSaved(const std::string& id) const;
  bool IsAutostarting(const std::string& id) const;

 private:
  std::string uri_;
};

}  // namespace vexa::test
