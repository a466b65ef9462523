// A machine that is only domain XML: devices are added and removed there. For tests of what changes running guests.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "host/hypervisor/hypervisor.h"

namespace vexa::test {

class FakeMachine final : public hypervisor::Hypervisor {
 public:
  explicit FakeMachine(std::string running_xml) : xml_(std::move(running_xml)) {}

  std::vector<std::string> calls;  // "attach <disk…>", in order
  std::function<bool(const std::string& call)> refuses = [](const std::string&) { return false; };

  Result<std::string, hypervisor::Failure> RunningXmlOf(const std::string&) override { return xml_; }
  Result<void, hypervisor::Failure> AttachDevice(const std::string&, const std::string& xml) override {
    if (!Allow("attach " + xml)) return Refused();
    xml_.insert(xml_.find("</devices>"), xml);
    return {};
  }
  Result<void, hypervisor::Failure> DetachDevice(const std::string&, const std::string& xml) override {
    if (!Allow("detach " + xml)) return Refused();
    const std::size_t at = xml_.find(xml);
    if (at == std::string::npos) return Refused();
    xml_.erase(at, xml.size());
    return {};
  }
  Result<void, hypervisor::Failure> UpdateDevice(const std::string&, const std::string& xml,
                                                 hypervisor::Eject) override {
    return Allow("update " + xml) ? Result<void, hypervisor::Failure>() : Refused();
  }

  // Not used by changes of running guests, or not yet by a test.
  std::string DomainType() const override { return "test"; }
  domain_xml::CpuShares CpuSharesSupport() const override { return domain_xml::CpuShares::kAllowed; }
  std::int64_t MaxCpuWeight() const override { return 0; }
  Result<std::int64_t, hypervisor::Failure> CpuWeightOf(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> SetAffinity(const std::string&, const hypervisor::CpuAffinity&) override {
    return NotFaked();
  }
  Result<std::string, hypervisor::Failure> Define(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Undefine(const std::string&, hypervisor::UndefineScope) override {
    return NotFaked();
  }
  Result<void, hypervisor::Failure> DiscardSaved(const std::string&) override { return NotFaked(); }
  Result<bool, hypervisor::Failure> DiscardOutdatedSaved(const std::string&) override { return NotFaked(); }
  Result<hypervisor::Definition, hypervisor::Failure> DefinitionOf(const std::string&) override { return NotFaked(); }
  Result<std::string, hypervisor::Failure> XmlOf(const std::string&) override { return NotFaked(); }
  Result<std::string, hypervisor::Failure> SavedXmlOf(const std::string&) override { return NotFaked(); }
  Result<bool, hypervisor::Failure> IsAutostarted(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> SetAutostart(const std::string&, bool) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Start(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Restore(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Suspend(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Resume(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Save(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> ShutDown(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> PowerOff(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> Reboot(const std::string&) override { return NotFaked(); }
  Result<hypervisor::GuestState, hypervisor::Failure> StateOf(const std::string&) override { return NotFaked(); }
  Result<bool, hypervisor::Failure> IsPausedOnIoError(const std::string&) override { return NotFaked(); }
  Result<std::vector<hypervisor::KnownGuest>, hypervisor::Failure> List() override { return NotFaked(); }
  Result<std::vector<std::vector<hypervisor::HeldFile>>, hypervisor::Failure> FilesHeldBy(const std::string&) override {
    return NotFaked();
  }
  Result<std::vector<std::string>, hypervisor::Failure> AddressesOf(const std::string&) override { return NotFaked(); }
  Result<bool, hypervisor::Failure> HasAgent(const std::string&) override { return NotFaked(); }
  Result<Descriptor, hypervisor::Failure> OpenScreen(const std::string&) override { return NotFaked(); }
  Result<Descriptor, hypervisor::Failure> OpenSerial(const std::string&) override { return NotFaked(); }
  Result<std::string, hypervisor::Failure> Screenshot(const std::string&) override { return NotFaked(); }
  Result<std::size_t, hypervisor::Failure> PressKeys(const std::string&, const std::vector<KeyPress>&) override {
    return NotFaked();
  }
  Result<void, hypervisor::Failure> SetVcpus(const std::string&, unsigned) override { return NotFaked(); }
  Result<void, hypervisor::Failure> SetCpuShares(const std::string&, std::uint64_t) override { return NotFaked(); }
  Result<void, hypervisor::Failure> ResizeDisk(const std::string&, const std::string&, std::uint64_t) override {
    return NotFaked();
  }
  Result<std::uint64_t, hypervisor::Failure> SizeOfDisk(const std::string&, const std::string&) override {
    return NotFaked();
  }
  Result<std::vector<domain_xml::GuestInterface>, hypervisor::Failure> InterfacesOf(const std::string&) override {
    return NotFaked();
  }
  Result<std::vector<std::string>, hypervisor::Failure> Networks() override { return NotFaked(); }
  Result<std::vector<hypervisor::KnownNetwork>, hypervisor::Failure> KnownNetworks() override { return NotFaked(); }
  Result<void, hypervisor::Failure> DefineNetwork(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> StartNetwork(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> StopNetwork(const std::string&) override { return NotFaked(); }
  Result<void, hypervisor::Failure> UndefineNetwork(const std::string&) override { return NotFaked(); }
  Result<std::uint64_t, hypervisor::Failure> FreeMemory() override { return NotFaked(); }
  Result<hypervisor::NodeInfo, hypervisor::Failure> GetNodeInfo() override { return NotFaked(); }
  Result<std::string, hypervisor::Failure> Version() override { return NotFaked(); }
  bool IsConnected() const override { return true; }
  void Reconnect() override {}

 private:
  static hypervisor::Failure NotFaked() { return {hypervisor::FailureKind::kUnsupported, "The test has no such call"}; }
  static hypervisor::Failure Refused() { return {hypervisor::FailureKind::kFailed, "The test refuses it"}; }
  bool Allow(const std::string& call) {
    calls.push_back(call);
    return !refuses(call);
  }

  std::string xml_;
};

}  // namespace vexa::test
