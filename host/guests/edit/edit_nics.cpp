// Edits the network interfaces of a guest.
#include <fmt/format.h>

#include <algorithm>
#include <optional>

#include "host/base/json_parse.h"
#include "host/base/sanitize_for_log.h"
#include "host/cluster/mac_address.h"
#include "host/domain_xml/domain_parse.h"
#include "host/guests/edit/edit_plan.h"
#include "host/guests/edit/edit_request.h"
#include "host/records/keys.h"
#include "host/records/network_record.h"
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

// The name of the network according to any network interface that is in it. "": unknown.
Result<std::string> NameFromNics(const store::Snapshot& snapshot, const std::string& network_id) {
  std::string name;
  const Status scanned =
      snapshot.Scan(records::CategoryKey(DashCate::vNic.name()), [&](std::string_view, const store::ValueView& value) {
        // Parsing every record would be slow. A record that does not contain the id literally can only contain it with
        // escapes.
        const bool may_contain_id =
            value.text.find(network_id) != std::string_view::npos || value.text.find('\\') != std::string_view::npos;
        if (!may_contain_id) return true;
        const Result<Json::Value> record = ParseJson(value.text);
        if (record && json::StringMember(*record, keys::network_group_id) == network_id)
          name = json::StringMember(*record, kNetworkName);
        return name.empty();
      });
  if (!scanned) return scanned.error();
  return name;
}

// Returns the name of the network with this id that a host has found; empty when no host reports one.
Result<std::string> NameFromReports(const store::Snapshot& snapshot, const std::string& network_id) {
  const auto reports = records::ReadNetworkReports(snapshot);
  if (!reports) return reports.error();
  for (const auto& [host_id, report] : *reports) {
    if (!report) continue;
    for (const records::FoundNetwork& found : report->found) {
      if (domain_xml::NetworkGroupId(found.name) == network_id) return found.name;
    }
  }
  return std::string();
}

// What hosts call the network with this id: by its record, else by another interface in it, else by what hosts have
// found. Not set: it is unknown.
Result<std::optional<std::string>> NetworkName(EditedGuest& edited, const std::string& network_id) {
  if (network_id.empty()) return std::optional<std::string>("");
  const auto stored = records::ReadNetwork(edited.snapshot, network_id);
  if (!stored) return stored.error();
  if (*stored && !(*stored)->network.network_name.empty()) {
    // Code that removes the network meanwhile must find this interface, and this edit must find it removed.
    edited.plan.transaction.compares.push_back(
        {records::ObjectKey(kNetworkCategory, network_id), (*stored)->record.revision});
    edited.names_network = true;
    return std::optional((*stored)->network.network_name);
  }
  for (const auto find : {NameFromNics, NameFromReports}) {
    Result<std::string> name = find(edited.snapshot, network_id);
    if (!name) return name.error();
    if (!name->empty()) return std::optional(std::move(*name));
  }
  return std::optional<std::string>();
}

Result<std::string> UnknownNetwork(const store::Snapshot& snapshot, const std::string& network_id) {
  auto names = records::NetworkNames(snapshot);
  if (!names) return names.error();
  const std::string unknown = fmt::format("There is no network {}", QuoteForMessage(network_id));
  if (names->empty()) return unknown + ", and no other one";
  for (std::string& name : *names) name = QuoteForMessage(name);
  return fmt::format("{}. The networks are {}", unknown, records::FormatReferrers(*names));
}

Status SetNetwork(EditedGuest& edited, Json::Value& nic, const std::string& network_id) {
  Result<std::optional<std::string>> name = NetworkName(edited, network_id);
  if (!name) return name.error();
  if (!*name) {
    Result<std::string> reason = UnknownNetwork(edited.snapshot, network_id);
    if (!reason) return reason.error();
    edited.Refuse(host_error::kBadNic, std::move(*reason));
  }
  nic[keys::network_group_id] = network_id;
  nic[kNetworkName] = name->value_or("");
  return {};
}

// Refuses a virtual function where the network cannot have one. What hosts have is only known at a start.
Status CheckVirtualFunction(EditedGuest& edited, const Json::Value& nic) {
  const std::string network_id = json::StringMember(nic, keys::network_group_id);
  if (!json::Bool(json::Member(nic, keys::prefer_sriov)) || network_id.empty()) return {};
  const auto stored = records::ReadNetwork(edited.snapshot, network_id);
  if (!stored) return stored.error();
  if (!*stored || (*stored)->network.kind == records::NetworkKind::kBridge) return {};
  edited.Refuse(host_error::kBadNic,
                fmt::format("An interface in the network {} cannot have a virtual function ('prefer_sriov'): it is of "
                            "the kind '{}', and only a network of the kind 'bridge' leads to a network card",
                            QuoteForMessage((*stored)->network.name), NetworkKindName((*stored)->network.kind)));
  return {};
}

// Sets an address, which no other guest may use.
Status SetMac(EditedGuest& edited, Json::Value& nic, const std::string& mac) {
  nic[keys::mac_address] = mac;
  edited.taken_macs.push_back(mac);
  // Reads the newest state of the store, which is at least as new as the snapshot.
  const auto user = cluster::GuestOfMacAddress(*edited.options.store, mac);
  if (!user) return user.error();
  if (*user && **user != edited.id)
    edited.Refuse(host_error::kBadNic, fmt::format("Another guest has the MAC address '{}'", mac));
  return {};
}

EditedPart* Find(EditedGuest& edited, const std::string& id) {
  const auto found = std::ranges::find(edited.nics, id, &EditedPart::id);
  const bool is_own = found != edited.nics.end() && json::StringMember(found->before, keys::guest_id) == edited.id;
  if (is_own) return &*found;
  edited.Refuse(host_error::kBadNic, fmt::format("The guest has no network interface {}", QuoteForMessage(id)));
  return nullptr;
}

Status Change(EditedGuest& edited, const NicChange& change) {
  EditedPart* const nic = Find(edited, change.id);
  if (!nic) return {};
  Json::Value& record = nic->stored.record;
  if (change.network_id && *change.network_id != json::StringMember(record, keys::network_group_id)) {
    if (Status set = SetNetwork(edited, record, *change.network_id); !set) return set;
  }
  if (change.mac && *change.mac != Lower(json::StringMember(record, keys::mac_address))) {
    if (Status set = SetMac(edited, record, *change.mac); !set) return set;
  }
  if (change.type) record[keys::vnic_type] = *change.type;
  if (change.prefer_sriov) record[keys::prefer_sriov] = *change.prefer_sriov;
  const bool may_conflict = change.network_id || change.prefer_sriov;
  return may_conflict ? CheckVirtualFunction(edited, record) : Status();
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
  if (Status checked = CheckVirtualFunction(edited, record); !checked) return checked;
  const std::string& mac = addition.mac.empty() ? edited.ids.macs[index] : addition.mac;
  if (Status set = SetMac(edited, record, mac); !set) return set;
  edited.nics.push_back(std::move(nic));
  return {};
}

void CheckAll(EditedGuest& edited) {
  if (edited.nics.size() > domain_xml::kMaxNics) {
    edited.Refuse(host_error::kBadNic,
                  fmt::format("The guest would have more than {} network interfaces", domain_xml::kMaxNics));
  }
  for (const std::string& mac : edited.taken_macs) {
    const auto users = std::ranges::count_if(edited.nics, [&](const EditedPart& nic) {
      return Lower(json::StringMember(nic.stored.record, keys::mac_address)) == mac;
    });
    if (users > 1)
      edited.Refuse(host_error::kBadNic,
                    fmt::format("Two network interfaces of the guest would have the address '{}'", mac));
  }
}

}  // namespace

std::string TooManyNics() { return fmt::format("A guest has at most {} network interfaces", domain_xml::kMaxNics); }

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
  if (request.nics_add.size() > domain_xml::kMaxNics) {
    edited.Refuse(host_error::kBadNic, TooManyNics());
    return {};
  }
  for (std::size_t i = 0; i < request.nics_add.size(); ++i) {
    if (Status added = Add(edited, request.nics_add[i], i); !added) return added;
  }
  // An existing guest may exceed the limits, which does not prevent edits that leave its interfaces alone.
  if (!request.nics_add.empty() || !request.nics_edit.empty()) CheckAll(edited);
  return {};
}

}  // namespace vexa::guests
