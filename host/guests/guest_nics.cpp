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

using hypervisor::GuestInterface;
using hypervisor::PluggedInto;
using hypervisor::Problem;
using VexaCCC::DB::DashCate;

// Readers take a bridge with this name prefix for one that needs no port of the host.
constexpr const char* kPrivatePrefix = "PN";
constexpr const char* kPrivateName = "PN-";
constexpr const char* kSwitchPrefix = "ovs_";

std::string VnicKey(const std::string& vnic_id) { return cluster::ObjectKey(DashCate::vNic.name(), vnic_id); }

std::string NicsKey(const std::string& host_id) {
  return cluster::MemberKey(DashCate::Host.name(), host_id, keys::nics);
}

NicPlace PrivatePlace(const GuestInterface& interface, const std::string& name) {
  return {interface.mac, kPrivateName + name, ""};
}

// On an interface of the host, whether it has a link or not.
NicPlace PlaceOn(const GuestInterface& interface, const std::string& name) {
  const bool looks_private = name.starts_with(kPrivatePrefix);
  return {interface.mac, looks_private ? kSwitchPrefix + name : name, name};
}

// A bridge without uplinks connects its guests with each other, and with the host, as long as it is switched on. A
// bridge of the virtual switch forwards frames even while its own device is switched off.
NicPlace PlaceOnBridge(const GuestInterface& interface, const std::string& bridge, NetworkLinks& links) {
  const bool is_of_libvirt = interface.plugged_into == PluggedInto::kNetwork;
  if (!is_of_libvirt && !links.UplinksOf(bridge).empty()) return PlaceOn(interface, bridge);
  if (links.KindOf(bridge) == BridgeKind::kSwitch || links.IsSwitchedOn(bridge)) {
    return PrivatePlace(interface, bridge);
  }
  NicPlace place = PlaceOn(interface, bridge);
  place.port.clear();
  return place;
}

// The bridge of the interface's end in the host; "" when it is not on a bridge.
std::string BridgeOf(const GuestInterface& interface, NetworkLinks& links) {
  const std::string& target = interface.target;
  const std::string& named = interface.device;
  if (target.empty() || !links.IsThere(target)) return links.IsThere(named) ? named : "";
  std::string master = links.MasterOf(target);
  if (links.KindOf(master) == BridgeKind::kLinux) return master;
  if (links.KindOf(named) != BridgeKind::kSwitch) return "";
  return links.IsSwitchPort(named, target).value_or(true) ? named : "";
}

// The id of the record of the host's interface `name`; "" when absent.
Result<std::string> FindNic(const store::Snapshot& snapshot, const std::string& host_id, const std::string& name) {
  const std::string prefix = NicsKey(host_id);
  const auto ids = snapshot.Children(prefix);
  if (!ids) return ids.error();
  for (const std::string& id : *ids) {
    const auto nic = cluster::LoadObject(snapshot, prefix + "/" + store::EncodeSegment(id));
    if (nic && json::String(json::Member(nic->record, keys::name)) == name) return id;
  }
  return std::string();
}

// Plans one commit of NotePlaces.
class Note {
 public:
  Note(const store::Snapshot& snapshot, const std::string& host_id, NetworkLinks& links)
      : snapshot_(snapshot), host_id_(host_id), links_(links) {}

  // `places` is null when the guest does not run here.
  Status Add(const std::string& vnic_id, const std::vector<NicPlace>* places) {
    auto vnic = cluster::LoadObject(snapshot_, VnicKey(vnic_id));
    if (!vnic && vnic.error().code() != ErrorCode::kCorrupt) return vnic.error();
    if (!vnic || vnic->revision == 0) return {};
    const Json::Value before = json::Member(vnic->record, keys::running);
    Json::Value after(Json::objectValue);
    if (places == nullptr) {
      if (before.isObject()) after = before;
      after.removeMember(host_id_);
    } else if (const NicPlace* const place = PlaceOf(vnic->record, *places)) {
      Result<Json::Value> entry = EntryOf(*place);
      if (!entry) return entry.error();
      after[host_id_] = std::move(*entry);
    }
    if (after == before || (after.empty() && before.isNull())) return {};
    if (after.empty()) {
      vnic->record.removeMember(keys::running);
    } else {
      vnic->record[keys::running] = std::move(after);
    }
    cluster::PutObject(transaction_, VnicKey(vnic_id), *vnic);
    return {};
  }

  store::Transaction Take() { return std::move(transaction_); }

 private:
  // By the machine's current address: the record may already have the one of the next start.
  const NicPlace* PlaceOf(const Json::Value& record, const std::vector<NicPlace>& places) const {
    const Json::Value& noted = json::Member(json::Member(record, keys::running), host_id_);
    for (const Json::Value* const source : {&noted, &record}) {
      const std::string mac = json::String(json::Member(*source, keys::mac_address));
      const auto found = std::ranges::find(places, mac, &NicPlace::mac);
      if (!mac.empty() && found != places.end()) return &*found;
    }
    return nullptr;
  }

  Result<Json::Value> EntryOf(const NicPlace& place) {
    Json::Value entry(Json::objectValue);
    entry[keys::bridge_name] = place.bridge_name;
    entry[keys::mac_address] = place.mac;
    if (place.port.empty()) return entry;
    Result<std::string> nic_id = NicIdOf(place.port);
    if (!nic_id) return nic_id.error();
    if (!nic_id->empty()) entry[keys::nic_id] = *nic_id;
    return entry;
  }

  Result<std::string> NicIdOf(const std::string& port) {
    if (const auto made = made_.find(port); made != made_.end()) return made->second;
    Result<std::string> known = FindNic(snapshot_, host_id_, port);
    if (!known || !known->empty()) return known;
    // Hardware is identified by its own address, so that a new name does not change its id.
    if (links_.IsHardware(port)) return std::string();
    const std::string id = cluster::NicId(host_id_, port);
    const std::string key = NicsKey(host_id_) + "/" + store::EncodeSegment(id);
    auto nic = cluster::LoadObject(snapshot_, key);
    if (!nic) return std::string();
    nic->record[keys::name] = port;
    cluster::PutObject(transaction_, key, *nic);
    made_.emplace(port, id);
    return id;
  }

  const store::Snapshot& snapshot_;
  const std::string& host_id_;
  NetworkLinks& links_;
  store::Transaction transaction_;
  std::map<std::string, std::string> made_;  // the ids of records that this commit creates, by the interface's name
};

}  // namespace

std::optional<NicPlace> FindPlace(const GuestInterface& interface, NetworkLinks& links) {
  if (!interface.is_link_up) return std::nullopt;
  if (interface.plugged_into == PluggedInto::kUser) return PrivatePlace(interface, "user");
  std::string device = interface.device;
  if (interface.plugged_into != PluggedInto::kDevice) device = BridgeOf(interface, links);
  if (!links.IsThere(device)) return std::nullopt;
  if (links.KindOf(device) != BridgeKind::kNone) return PlaceOnBridge(interface, device, links);
  if (interface.plugged_into == PluggedInto::kDevice) return PlaceOn(interface, device);
  return std::nullopt;
}

std::optional<NicPlace> InventPlace(const GuestInterface& interface) {
  const std::string& name = interface.network.empty() ? interface.device : interface.network;
  if (!interface.is_link_up || name.empty()) return std::nullopt;
  return PrivatePlace(interface, name);
}

Status NotePlaces(store::Store& store, const std::string& host_id, const std::string& guest_id, RunsHere runs_here,
                  const std::vector<NicPlace>& places, NetworkLinks& links) {
  return cluster::CommitPlanned(store, [&]() -> Result<store::Transaction> {
    const auto snapshot = store.Read();
    if (!snapshot) return snapshot.error();
    const auto guest = cluster::LoadObject(**snapshot, GuestObjectKey(guest_id));
    if (!guest && guest.error().code() != ErrorCode::kCorrupt) return guest.error();
    if (!guest || guest->revision == 0) return store::Transaction();
    Note note(**snapshot, host_id, links);
    const Json::Value& vnics = json::Elements(json::Member(guest->record, keys::vnics));
    for (Json::ArrayIndex i = 0; i < std::min(vnics.size(), kMaxGuestParts); ++i) {
      if (!vnics[i].isString() || json::String(vnics[i]).empty()) continue;
      const Status added = note.Add(json::String(vnics[i]), runs_here == RunsHere::kYes ? &places : nullptr);
      if (!added) return added.error();
    }
    return note.Take();
  });
}

Status LibvirtGuestControl::NoteNics(const std::string& guest_id) {
  const auto stored = ReadRun(*options_.store, guest_id);
  if (!stored) return stored.error();
  const bool runs =
      *stored && (*stored)->run.host_id == options_.host_id && !(*stored)->run.starting && !(*stored)->run.saved;
  NetworkLinks links;
  if (!runs) return NotePlaces(*options_.store, options_.host_id, guest_id, RunsHere::kNo, {}, links);
  const auto interfaces = hypervisor_->InterfacesOf(guest_id);
  if (!interfaces) {
    const Problem problem = interfaces.failure().problem();
    // It has just ended, which the hypervisor reports separately.
    if (problem == Problem::kNotRunning || problem == Problem::kNoSuchGuest) return {};
    return interfaces.failure().error();
  }
  std::vector<NicPlace> places;
  for (const GuestInterface& interface : *interfaces) {
    auto place = ForgetsGuests() ? InventPlace(interface) : FindPlace(interface, links);
    if (place) places.push_back(std::move(*place));
  }
  return NotePlaces(*options_.store, options_.host_id, guest_id, RunsHere::kYes, places, links);
}

}  // namespace vexa::guests
