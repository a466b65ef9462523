#include "host/guests/guest_nics.h"

#include <algorithm>
#include <map>
#include <utility>

#include "host/cluster/nic_id.h"
#include "host/guests/guest_control_impl.h"
#include "host/records/guest_records.h"
#include "host/records/keys.h"
#include "host/records/object_edit.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

using domain_xml::GuestInterface;
using domain_xml::NicAttachment;
using hypervisor::FailureKind;
using VexaCCC::DB::DashCate;

// Readers of the records treat a bridge with this name prefix as private: it has no interface of the host.
constexpr const char* kPrivatePrefix = "PN";
constexpr const char* kPrivateNamePrefix = "PN-";
constexpr const char* kSwitchPrefix = "ovs_";

std::string VnicKey(const std::string& vnic_id) { return records::ObjectKey(DashCate::vNic.name(), vnic_id); }

std::string NicsKey(const std::string& host_id) {
  return records::MemberKey(DashCate::Host.name(), host_id, keys::nics);
}

NicAttachmentRecord PrivateAttachment(const GuestInterface& interface, const std::string& name) {
  return {interface.mac, kPrivateNamePrefix + name, ""};
}

// An attachment to a device of the host, whether or not the device has a link.
NicAttachmentRecord AttachmentTo(const GuestInterface& interface, const std::string& name) {
  const bool looks_private = name.starts_with(kPrivatePrefix);
  return {interface.mac, looks_private ? kSwitchPrefix + name : name, name};
}

// A bridge without uplinks connects its guests with each other and with the host, as long as its device is up. An Open
// vSwitch bridge forwards frames even while its own device is down.
NicAttachmentRecord AttachmentToBridge(const GuestInterface& interface, const std::string& bridge,
                                       machine::NetworkLinks& links) {
  const bool is_of_libvirt = interface.attachment_kind == NicAttachment::kNetwork;
  if (!is_of_libvirt && !links.UplinksOf(bridge).empty()) return AttachmentTo(interface, bridge);
  if (links.KindOf(bridge) == machine::BridgeKind::kSwitch || links.IsAdminUp(bridge)) {
    return PrivateAttachment(interface, bridge);
  }
  NicAttachmentRecord attachment = AttachmentTo(interface, bridge);
  attachment.port.clear();
  return attachment;
}

// The bridge that the host's end of the interface is attached to; "" when it is not attached to a bridge.
std::string BridgeOf(const GuestInterface& interface, machine::NetworkLinks& links) {
  const std::string& target = interface.target;
  const std::string& named = interface.device;
  if (target.empty() || !links.Exists(target)) return links.Exists(named) ? named : "";
  std::string master = links.MasterOf(target);
  if (links.KindOf(master) == machine::BridgeKind::kLinux) return master;
  if (links.KindOf(named) != machine::BridgeKind::kSwitch) return "";
  return links.IsSwitchPort(named, target).value_or(true) ? named : "";
}

// The id of the record of the host's interface `name`; "" when absent.
Result<std::string> FindNic(const store::Snapshot& snapshot, const std::string& host_id, const std::string& name) {
  const std::string prefix = NicsKey(host_id);
  const auto ids = snapshot.Children(prefix);
  if (!ids) return ids.error();
  for (const std::string& id : *ids) {
    const auto nic = records::LoadObject(snapshot, prefix + "/" + store::EncodeSegment(id));
    if (nic && json::String(json::Member(nic->record, keys::name)) == name) return id;
  }
  return std::string();
}

// The networks of the interfaces that have virtual functions, by their MAC addresses in lower case.
std::map<std::string, std::string> NetworksOfFunctions(const store::Store& store, const records::Run& run) {
  std::map<std::string, std::string> networks;
  if (run.virtual_functions.empty()) return networks;
  const auto reader = records::Reader::Open(store);
  if (!reader) return networks;
  for (const auto& [nic, function] : run.virtual_functions) {
    const auto record = reader->ReadObject(DashCate::vNic.name(), nic);
    if (!record) continue;
    std::string mac = json::StringMember(**record, keys::mac_address);
    std::ranges::transform(mac, mac.begin(),
                           [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c | 32) : c; });
    networks[mac] = function.network;
  }
  return networks;
}

// Plans one commit of WriteNicAttachments.
class AttachmentUpdate {
 public:
  AttachmentUpdate(const store::Snapshot& snapshot, const std::string& host_id, machine::NetworkLinks& links)
      : snapshot_(snapshot), host_id_(host_id), links_(links) {}

  // `attachments` is null when the guest does not run here.
  Status Add(const std::string& vnic_id, const std::vector<NicAttachmentRecord>* attachments) {
    auto vnic = records::LoadObject(snapshot_, VnicKey(vnic_id));
    if (!vnic && vnic.error().code() != ErrorCode::kCorrupt) return vnic.error();
    if (!vnic || vnic->revision == 0) return {};
    const Json::Value before = json::Member(vnic->record, keys::running);
    Json::Value after(Json::objectValue);
    if (attachments == nullptr) {
      if (before.isObject()) after = before;
      after.removeMember(host_id_);
    } else if (const NicAttachmentRecord* const attachment = FindAttachment(vnic->record, *attachments)) {
      Result<Json::Value> entry = EntryOf(*attachment);
      if (!entry) return entry.error();
      after[host_id_] = std::move(*entry);
    }
    if (after == before || (after.empty() && before.isNull())) return {};
    if (after.empty()) {
      vnic->record.removeMember(keys::running);
    } else {
      vnic->record[keys::running] = std::move(after);
    }
    records::PutObject(transaction_, VnicKey(vnic_id), *vnic);
    return {};
  }

  store::Transaction Take() { return std::move(transaction_); }

 private:
  // Searches by the domain's current MAC address: the record itself may already have the one of the next start. Null:
  // the interface is not attached.
  const NicAttachmentRecord* FindAttachment(const Json::Value& record,
                                            const std::vector<NicAttachmentRecord>& attachments) const {
    const Json::Value& stored = json::Member(json::Member(record, keys::running), host_id_);
    for (const Json::Value* const source : {&stored, &record}) {
      const std::string mac = json::String(json::Member(*source, keys::mac_address));
      const auto found = std::ranges::find(attachments, mac, &NicAttachmentRecord::mac);
      if (!mac.empty() && found != attachments.end()) return &*found;
    }
    return nullptr;
  }

  Result<Json::Value> EntryOf(const NicAttachmentRecord& attachment) {
    Json::Value entry(Json::objectValue);
    entry[keys::bridge_name] = attachment.bridge_name;
    entry[keys::mac_address] = attachment.mac;
    if (attachment.port.empty()) return entry;
    Result<std::string> nic_id = NicIdOf(attachment.port);
    if (!nic_id) return nic_id.error();
    if (!nic_id->empty()) entry[keys::nic_id] = *nic_id;
    return entry;
  }

  Result<std::string> NicIdOf(const std::string& port) {
    if (const auto created = created_ids_.find(port); created != created_ids_.end()) return created->second;
    Result<std::string> known = FindNic(snapshot_, host_id_, port);
    if (!known || !known->empty()) return known;
    // Hardware is identified by its own address, so that a new name does not change its id.
    if (links_.IsHardware(port)) return std::string();
    const std::string id = cluster::NicId(host_id_, port);
    const std::string key = NicsKey(host_id_) + "/" + store::EncodeSegment(id);
    auto nic = records::LoadObject(snapshot_, key);
    if (!nic) return std::string();
    nic->record[keys::name] = port;
    records::PutObject(transaction_, key, *nic);
    created_ids_.emplace(port, id);
    return id;
  }

  const store::Snapshot& snapshot_;
  const std::string& host_id_;
  machine::NetworkLinks& links_;
  store::Transaction transaction_;
  std::map<std::string, std::string> created_ids_;  // of records that this commit creates, by the interface's name
};

}  // namespace

std::optional<NicAttachmentRecord> FindNicAttachment(const GuestInterface& interface, machine::NetworkLinks& links) {
  if (!interface.is_link_up) return std::nullopt;
  if (interface.attachment_kind == NicAttachment::kUser) return PrivateAttachment(interface, "user");
  std::string device = interface.device;
  if (interface.attachment_kind != NicAttachment::kDevice) device = BridgeOf(interface, links);
  if (!links.Exists(device)) return std::nullopt;
  if (links.KindOf(device) != machine::BridgeKind::kNone) return AttachmentToBridge(interface, device, links);
  if (interface.attachment_kind == NicAttachment::kDevice) return AttachmentTo(interface, device);
  return std::nullopt;
}

std::optional<NicAttachmentRecord> FakeNicAttachment(const GuestInterface& interface) {
  const std::string& name = interface.network.empty() ? interface.device : interface.network;
  if (!interface.is_link_up || name.empty()) return std::nullopt;
  return PrivateAttachment(interface, name);
}

Status WriteNicAttachments(store::Store& store, const std::string& host_id, const std::string& guest_id,
                           RunsHere runs_here, const std::vector<NicAttachmentRecord>& attachments,
                           machine::NetworkLinks& links) {
  return records::CommitWithRetry(store, [&](const records::Reader& reader) -> Result<store::Transaction> {
    const auto guest = records::LoadObject(reader, records::GuestObjectKey(guest_id));
    if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
    if (!guest || guest->revision == 0) return store::Transaction();
    AttachmentUpdate update(reader, host_id, links);
    const Json::Value& vnics = json::Elements(json::Member(guest->record, keys::vnics));
    for (Json::ArrayIndex i = 0; i < std::min(vnics.size(), records::kMaxGuestParts); ++i) {
      if (!vnics[i].isString() || json::String(vnics[i]).empty()) continue;
      const Status added = update.Add(json::String(vnics[i]), runs_here == RunsHere::kYes ? &attachments : nullptr);
      if (!added) return added.error();
    }
    return update.Take();
  });
}

Status LibvirtGuestControl::RecordNicAttachments(const std::string& guest_id) {
  const auto stored = records::ReadRun(*options_.store, guest_id);
  if (!stored) return stored.error();
  const bool runs =
      *stored && (*stored)->run.host_id == options_.host_id && !(*stored)->run.starting && !(*stored)->run.saved;
  machine::NetworkLinks links;
  if (!runs) return WriteNicAttachments(*options_.store, options_.host_id, guest_id, RunsHere::kNo, {}, links);
  auto interfaces = hypervisor_->InterfacesOf(guest_id);
  if (!interfaces) {
    const FailureKind kind = interfaces.error().kind();
    // The guest has just ended, which the hypervisor reports by an event.
    if (kind == FailureKind::kNotRunning || kind == FailureKind::kNoSuchGuest) return {};
    return interfaces.error();
  }
  std::vector<NicAttachmentRecord> attachments;
  const std::map<std::string, std::string> functions = NetworksOfFunctions(*options_.store, (*stored)->run);
  for (GuestInterface& interface : *interfaces) {
    // A card passes the frames of its functions on like those of the bridge that it is a port of.
    if (const auto function = functions.find(interface.mac); function != functions.end()) {
      interface.attachment_kind = NicAttachment::kBridge;
      interface.device = function->second;
    }
    auto attachment = IsTestMode() ? FakeNicAttachment(interface) : FindNicAttachment(interface, links);
    if (attachment) attachments.push_back(std::move(*attachment));
  }
  return WriteNicAttachments(*options_.store, options_.host_id, guest_id, RunsHere::kYes, attachments, links);
}

}  // namespace vexa::guests
