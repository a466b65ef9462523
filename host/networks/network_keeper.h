// Keeps the networks of this host as the records of the cluster say: makes what is missing, and removes what it has
// made when the record is gone. Never changes what it has not made: its networks of libvirt have a mark in their
// metadata, its bridges in their alias and in the files of systemd-networkd.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/base/mutex.h"
#include "host/domain_xml/network_xml.h"
#include "host/hypervisor/hypervisor.h"
#include "host/machine/bridge_request.h"
#include "host/machine/interfaces.h"
#include "host/machine/network_links.h"
#include "host/records/network_record.h"
#include "host/store/store.h"

namespace vexa::networks {

struct NetworkKeeperOptions {
  std::shared_ptr<store::Store> store;
  std::string host_id;
  // In test mode, all bridges exist, and nothing is read of the machine.
  enum class Bridges { kOfMachine, kAllExist };
  Bridges bridges = Bridges::kOfMachine;
  std::string machine_root;           // as that of machine::Machine
  machine::BridgeMaker bridge_maker;  // without functions: this host makes no bridges
  machine::AddressReader addresses = machine::SystemAddresses;
  // The compare of this host's commits (cluster::HostClaim::Guard). Not set: none.
  std::function<store::Compare()> guard;
  // Whether the host stops: a pass then ends early and reports nothing. Not set: never.
  std::function<bool()> is_stopping;
};

// Threads: any, at the same time; passes wait for each other.
class NetworkKeeper {
 public:
  explicit NetworkKeeper(NetworkKeeperOptions options);

  // One pass over all networks: makes and removes what has to be, and stores what this host has of each (see
  // records::NetworkReport). Takes as long as libvirt does. Failures are in the report and, when they are new, in the
  // system log. While the cluster's database is lost, this does nothing, because what is read may be old.
  void Keep(hypervisor::Hypervisor& hypervisor);

 private:
  // What a pass has found, and what it is going to report.
  struct Pass;

  // Whether this host has made the network.
  bool IsOwn(const domain_xml::ParsedNetwork& network) const;
  void ReadLibvirt(Pass& pass) const;
  void ReadMachine(Pass& pass) const;
  void AddDefault(const Pass& pass) const;
  Status ReadRecords(Pass& pass) const;
  void KeepOrLeave(Pass& pass, const records::StoredNetwork& stored) const;
  records::NetworkCondition KeepOne(Pass& pass, const records::Network& network) const;
  records::NetworkCondition KeepBridge(Pass& pass, const records::Network& network) const;
  records::NetworkCondition KeepInLibvirt(Pass& pass, const records::Network& network,
                                          domain_xml::NetworkDefinition definition) const;
  bool IsMade(const machine::BridgeRequest& request) const;
  Status MakeBridge(Pass& pass, const machine::BridgeRequest& request) const;
  // Not set: another program has made the interface, or the machine's start.
  std::optional<machine::BridgeMark> MarkOf(const std::string& interface) const;
  void RemoveStale(const Pass& pass) VEXA_REQUIRES(keeping_);
  void RemoveStaleBridges(const Pass& pass) VEXA_REQUIRES(keeping_);
  void LogRemoval(const std::string& what, const std::string& where, const std::string& failure)
      VEXA_REQUIRES(keeping_);
  void Report(Pass& pass) const;
  bool IsStopping() const { return options_.is_stopping && options_.is_stopping(); }
  void LogChanges(const Pass& pass) VEXA_REQUIRES(keeping_);
  void LogOnce(const std::string& sentence) VEXA_REQUIRES(keeping_);

  const NetworkKeeperOptions options_;
  Mutex keeping_;                                                                           // locked during a pass
  std::map<std::string, records::NetworkCondition> last_logged_ VEXA_GUARDED_BY(keeping_);  // by network id
  std::map<std::string, std::string> failed_removals_ VEXA_GUARDED_BY(keeping_);  // failures by what cannot be removed
  std::string last_error_ VEXA_GUARDED_BY(keeping_);
};

}  // namespace vexa::networks
