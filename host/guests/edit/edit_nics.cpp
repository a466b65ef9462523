// Edits the network interfaces of a guest.
#include <algorithm>
#include <optional>

#include "host/base/json_parse.h"
#include "host/base/log_text.h"
#include "host/cluster/mac_address.h"
#include "host/domain_xml/domain_xml.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/store/key.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"

namespace vexa::guests {
namespace {

namespace json = VexaVirtualization::json;
namespace keys = VexaCCC::DB::_k;
using VexaCCC::DB::DashCate;

constexpr char kNetworkName[] = "network_name";
constexpr char kNetworkCategory[] = "network";

std::string Lower(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c | 32) : c; });
  return text;
}

// The network's name according to another interface that is in it. "": unknown.
Result<std::string> NameFromNics(const store::Snapshot& snapshot, const std::string& network_id) {
  std::string name;
  const Status scanned = snapshot.Scan(
      store::MakeKey({"dash", DashCate::vNic.name()}), [&](std::string_view, const store::ValueView& value) {
        // Parsing all of them would take most of the time. A text without the id can only contain it in escaped form.
        const bool may_be =
            value.text.find(network_id) != std::string_view::npos || value.text.find('\\') != std::string_view::npos;
        if (!may_be) return true;
        const Result<Json::Value> record = ParseJson(value.text);
        if (record && json::TextMember(*record, keys::network_group_id) == network_id)
          name = json::TextMember(*record, kNetworkName);
        return name.empty();
      });
  if (!scanned) return scanned.error();
  return name;
}

// The name of the network or bridge with this id. Not set: it is unknown.
Result<std::optional<std::string>> NetworkName(const store::Snapshot& snapshot, const std::string& network_id) {
  if (network_id.empty()) return std::optional<std::string>("");
  Result<std::string> name = NameFromNics(snapshot, network_id);
  if (!name) return name.error();
  if (!name->empty()) return std::optional(std::move(*name));
  const auto record =
      cluster::LoadObject(snapshot, store::MakeKey({"dash", kNetworkCategory, network_id, keys::object}));
  if (!record && record.error().code() != ErrorCode::kCorrupt) return record.error();
  if (!record) return std::optional<std::string>();
  for (const char* member : {keys::bridge_name, keys::name}) {
    std::string text = json::TextMember(record->record, member);
    if (!text.empty()) return std::optional(std::move(text));
  }
  return std::optional<std::string>();
}

Status SetNetwork(EditedGuest& edited, Json::Value& nic, const std::string& network_id) {
  Result<std::optional<std::string>> name = NetworkName(edited.snapshot, network_id);
  if (!name) return name.error();
  if (!*name) edited.Refuse(kBadNic, "There is no network " + Shown(network_id));
  nic[keys::network_group_id] = network_id;
  nic[kNetworkName] = name->value_or("");
  return {};
}

// An address that no other guest uses.
Status SetMac(EditedGuest& edited, Json::Value& nic, const std::string& mac) {
  nic[keys::mac_address] = mac;
  edited.taken_macs.push_back(mac);
  // Reads the current state of the store, which is at least as new as what the commit compares.
  const auto user = cluster::GuestOfMacAddress(*edited.options.store, mac);
  if (!user) return user.error();
  if (*user && **user != edited.id) edited.Refuse(kBadNic, "Another guest has the MAC address '" + mac + "'");
  return {};
}

EditedPart* Find(EditedGuest& edited, const std::string& id) {
  const auto found = std::ranges::find(edited.nics, id, &EditedPart::id);
  const bool is_own = found != edited.nics.end() && json::TextMember(found->before, keys::guest_id) == edited.id;
  if (is_own) return &*found;
  edited.Refuse(kBadNic, "The guest has no network interface " + Shown(id));
  return nullptr;
}

Status Change(EditedGuest& edited, const NicChange& change) {
  EditedPart* const nic = Find(edited, change.id);
  if (!nic) return {};
  Json::Value& record = nic->stored.record;
  if (change.network_id && *change.network_id != json::TextMember(record, keys::network_group_id)) {
    if (Status set = SetNetwork(edited, record, *change.network_id); !set) return set;
  }
  if (change.mac && *change.mac != Lower(json::TextMember(record, keys::mac_address))) {
    if (Status set = SetMac(edited, record, *change.mac); !set) return set;
  }
  if (change.type) record[keys::vnic_type] = *change.type;
  if (change.prefer_sriov) record[keys::prefer_sriov] = *change.prefer_sriov;
  return {};
}

Status Add(EditedGuest& edited, const NicAddition& addition, std::size_t index) {
  EditedPart nic;
  nic.id = edited.ids.nics[index];
  Json::Value& record = nic.stored.record;
  record[keys::guest_id] = edited.id;
  record[keys::prefer_connect_ip] = "";
  record[keys::vnic_type] = addition.type;
  record[keys::prefer_sriov] = addition.prefer_sriov;
  if (Status set = SetNetwork(edited, record, addition.network_id); !set) return set;
  const std::string& mac = addition.mac.empty() ? edited.ids.macs[index] : addition.mac;
  if (Status set = SetMac(edited, record, mac); !set) return set;
  edited.nics.push_back(std::move(nic));
  return {};
}

void CheckAll(EditedGuest& edited) {
  if (edited.nics.size() > hypervisor::kMaxNics) {
    edited.Refuse(kBadNic,
                  "The guest would have more than " + std::to_string(hypervisor::kMaxNics) + " network interfaces");
  }
  for (const std::string& mac : edited.taken_macs) {
    const auto users = std::ranges::count_if(edited.nics, [&](const EditedPart& nic) {
      return Lower(json::TextMember(nic.stored.record, keys::mac_address)) == mac;
    });
    if (users > 1) edited.Refuse(kBadNic, "Two network interfaces of the guest would have the address '" + mac + "'");
  }
}

}  // namespace

Status EditNics(EditedGuest& edited) {
  const EditRequest& request = edited.request;
  for (const std::string& id : request.nics_del) {
    if (!Find(edited, id)) return {};
    edited.removed_nics.push_back(id);
    std::erase_if(edited.nics, [&](const EditedPart& nic) { return nic.id == id; });
  }
  for (const NicChange& change : request.nics_edit) {
    if (Status changed = Change(edited, change); !changed) return changed;
  }
  if (request.nics_add.size() > hypervisor::kMaxNics) {
    edited.Refuse(kBadNic, "A guest has at most " + std::to_string(hypervisor::kMaxNics) + " network interfaces");
    return {};
  }
  for (std::size_t i = 0; i < request.nics_add.size(); ++i) {
    if (Status added = Add(edited, request.nics_add[i], i); !added) return added;
  }
  // An existing guest may exceed the limits; an edit that does not touch its interfaces does not complain.
  if (!request.nics_add.empty() || !request.nics_edit.empty()) CheckAll(edited);
  return {};
}

}  // namespace vexa::guests
