#include "host/records/network_record.h"

#include <fmt/format.h>

#include <algorithm>
#include <set>
#include <utility>

#include "host/base/interface_name.h"
#include "host/base/json_parse.h"
#include "host/base/rows.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "host/records/keys.h"
#include "host/store/key.h"
#include "json/readers.h"

namespace vexa::records {
namespace {

constexpr char kCategory[] = "network";
constexpr std::size_t kMaxNameBytes = 64;
constexpr std::size_t kMaxDescriptionBytes = 1024;
constexpr std::size_t kMaxUplinks = 256;
constexpr std::size_t kMaxReported = 512;
constexpr std::size_t kMaxReasonBytes = 1024;
constexpr int kMinPrefix = 16;
constexpr int kMaxPrefix = 29;
constexpr int kMaxVlan = 4094;

struct KindRow {
  NetworkKind kind;
  std::string_view name;
};
constexpr KindRow kKinds[] = {{NetworkKind::kBridge, "bridge"},
                              {NetworkKind::kNat, "nat"},
                              {NetworkKind::kIsolated, "isolated"},
                              {NetworkKind::kVlan, "vlan"},
                              {NetworkKind::kMacvtap, "macvtap"}};

Error Invalid(std::string sentence) { return Error(ErrorCode::kInvalid, std::move(sentence)); }

bool HasControls(std::string_view text) {
  return std::ranges::any_of(text, [](unsigned char c) { return c < 0x20 || c == 0x7F; });
}

std::string Quoted(const std::string& text) { return "'" + SanitizeForLog(text, kMaxRecordName) + "'"; }

// A name of libvirt becomes the name of files.
bool IsNetworkName(const std::string& name) {
  return !name.empty() && name.size() <= kMaxNameBytes && IsValidUtf8(name) && !HasControls(name) &&
         name.find('/') == std::string::npos && name != "." && name != ".." && name.front() != ' ' &&
         name.back() != ' ';
}

bool HasBridge(NetworkKind kind) { return kind == NetworkKind::kBridge || kind == NetworkKind::kVlan; }

Status CheckNames(const Network& network) {
  if (!IsNetworkName(network.name)) {
    return Invalid(
        "A network's name is 1 to 64 bytes of UTF-8 without '/' and control characters, and neither begins nor ends "
        "with a space");
  }
  if (HasBridge(network.kind) && !IsInterfaceName(network.network_name)) {
    return Invalid(
        fmt::format("{} cannot be the name of a bridge: give one of 1 to 15 bytes without spaces, '/' and ':'",
                    Quoted(network.network_name)));
  }
  if (!IsNetworkName(network.network_name)) {
    return Invalid(fmt::format("{} cannot be the name of a network", Quoted(network.network_name)));
  }
  if (network.description.size() > kMaxDescriptionBytes || !IsValidUtf8(network.description) ||
      HasControls(network.description)) {
    return Invalid("A network's description is up to 1024 bytes of UTF-8 without control characters");
  }
  return {};
}

Status CheckSubnet(const Network& network) {
  if (!HasSubnet(network.kind)) {
    if (network.subnet.empty()) return {};
    return Invalid("Only networks of the kinds nat and isolated have a subnet");
  }
  const auto subnet = ParseIpv4Subnet(network.subnet);
  if (!subnet) {
    return Invalid(
        fmt::format("{} is not a subnet: give its first address and its prefix length, such as "
                    "192.168.100.0/24",
                    Quoted(network.subnet)));
  }
  if (!IsPrivate(*subnet) || subnet->prefix < kMinPrefix || subnet->prefix > kMaxPrefix) {
    return Invalid(
        fmt::format("The subnet {} cannot be used: give one of 10.0.0.0/8, 172.16.0.0/12 or 192.168.0.0/16 "
                    "with a prefix length of {} to {}",
                    Quoted(network.subnet), kMinPrefix, kMaxPrefix));
  }
  return {};
}

Status CheckUplink(const Network& network, const std::string& uplink) {
  if (uplink.empty()) return {};
  if (!IsInterfaceName(uplink)) {
    return Invalid(
        fmt::format("{} cannot be the name of a network interface: give one of 1 to 15 bytes without "
                    "spaces, '/' and ':'",
                    Quoted(uplink)));
  }
  if (uplink == network.network_name && HasBridge(network.kind)) {
    return Invalid(fmt::format("The interface {} cannot be its own uplink", Quoted(uplink)));
  }
  return {};
}

Status CheckUplinks(const Network& network) {
  const bool has_uplinks = !network.uplink.empty() || !network.uplinks.empty();
  if (HasSubnet(network.kind) && has_uplinks) {
    return Invalid("Networks of the kinds nat and isolated have no uplink");
  }
  if (!has_uplinks && (network.kind == NetworkKind::kVlan || network.kind == NetworkKind::kMacvtap)) {
    return Invalid(fmt::format("A network of the kind {} needs an uplink", NetworkKindName(network.kind)));
  }
  if (network.uplinks.size() > kMaxUplinks) {
    return Invalid(fmt::format("A network has uplinks of at most {} hosts", kMaxUplinks));
  }
  if (Status checked = CheckUplink(network, network.uplink); !checked) return checked;
  for (const auto& [host_id, uplink] : network.uplinks) {
    if (NormalizeUuid(host_id) != host_id) return Invalid(fmt::format("{} is not a host's id", Quoted(host_id)));
    if (Status checked = CheckUplink(network, uplink); !checked) return checked;
  }
  const bool is_bridge_with_uplink = network.kind == NetworkKind::kBridge && has_uplinks;
  if (network.move_addresses && !is_bridge_with_uplink) {
    return Invalid("Only a network of the kind bridge with an uplink can take over its addresses");
  }
  return {};
}

// The values of `member` that are strings, at most kMaxReported.
std::vector<std::string> TextsOf(const Json::Value& value, const char* member) {
  std::vector<std::string> texts;
  for (const Json::Value& element : json::Elements(json::Member(value, member))) {
    if (texts.size() == kMaxReported) break;
    if (element.isString()) texts.push_back(json::String(element));
  }
  return texts;
}

}  // namespace

std::string_view NetworkKindName(NetworkKind kind) { return FindRow(kKinds, &KindRow::kind, kind)->name; }

std::optional<NetworkKind> FindNetworkKind(std::string_view name) {
  const KindRow* const row = FindRow(kKinds, &KindRow::name, name);
  return row ? std::optional(row->kind) : std::nullopt;
}

const std::string& Network::UplinkOn(const std::string& host_id) const {
  const auto own = uplinks.find(host_id);
  return own == uplinks.end() ? uplink : own->second;
}

Status CheckNetwork(const Network& network) {
  for (const auto check : {CheckNames, CheckSubnet, CheckUplinks}) {
    if (Status checked = check(network); !checked) return checked;
  }
  const bool is_vlan = network.kind == NetworkKind::kVlan;
  if (is_vlan ? network.vlan_id < 1 || network.vlan_id > kMaxVlan : network.vlan_id != 0) {
    return Invalid(is_vlan ? fmt::format("The tag of a VLAN is a number from 1 to {}", kMaxVlan)
                           : "Only networks of the kind vlan have a tag");
  }
  return {};
}

StoredNetwork ParseNetwork(NamedRecord record) {
  StoredNetwork stored;
  Network& network = stored.network;
  const auto text = [&](const char* member) { return json::StringMember(record.record, member); };
  network.id = record.id;
  network.name = record.name;
  const std::string bridge = text(keys::bridge_name);
  // Records that were written by hand for older versions have a bridge and no kind.
  network.network_name = text("network_name");
  if (network.network_name.empty()) network.network_name = bridge.empty() ? network.name : bridge;
  const std::string kind = text("kind");
  const auto known_kind = FindNetworkKind(kind);
  network.kind = known_kind.value_or(NetworkKind::kBridge);
  network.description = text("description");
  network.subnet = text("subnet");
  const Json::Value& vlan = json::Member(record.record, "vlan_id");
  if (vlan.isInt()) network.vlan_id = json::Int(vlan);
  network.uplink = text("uplink");
  const Json::Value& uplinks = json::Member(record.record, "uplinks");
  for (const std::string& host_id : json::MemberNames(uplinks)) {
    if (network.uplinks.size() > kMaxUplinks) break;
    network.uplinks.emplace(host_id, json::StringMember(uplinks, host_id.c_str()));
  }
  network.move_addresses = json::Member(record.record, "move_addresses") == Json::Value(true);
  const Status checked = CheckNetwork(network);
  if (!known_kind && !kind.empty()) {
    stored.damage = fmt::format("The kind {} is unknown", Quoted(kind));
  } else if (!checked) {
    stored.damage = checked.error().message();
  }
  stored.record = std::move(record);
  return stored;
}

Json::Value NetworkToJson(const Network& network) {
  Json::Value record(Json::objectValue);
  record[keys::name] = network.name;
  record["kind"] = std::string(NetworkKindName(network.kind));
  record["network_name"] = network.network_name;
  record[keys::bridge_name] = network.network_name;  // hosts with older versions read this one
  if (!network.description.empty()) record["description"] = network.description;
  if (!network.subnet.empty()) record["subnet"] = network.subnet;
  if (network.vlan_id != 0) record["vlan_id"] = network.vlan_id;
  if (!network.uplink.empty()) record["uplink"] = network.uplink;
  for (const auto& [host_id, uplink] : network.uplinks) record["uplinks"][host_id] = uplink;
  if (network.move_addresses) record["move_addresses"] = true;
  return record;
}

Result<std::vector<StoredNetwork>> ReadNetworks(const store::Snapshot& snapshot) {
  auto records = ReadNamedRecords(snapshot, kCategory);
  if (!records) return records.error();
  std::vector<StoredNetwork> networks;
  for (NamedRecord& record : *records) networks.push_back(ParseNetwork(std::move(record)));
  return networks;
}

Result<std::optional<StoredNetwork>> ReadNetwork(const store::Snapshot& snapshot, const std::string& id) {
  auto record = ReadNamedRecord(snapshot, kCategory, id);
  if (!record) return record.error();
  if (!*record) return std::optional<StoredNetwork>();
  return std::optional(ParseNetwork(std::move(**record)));
}

std::string NetworkReportKey(const std::string& host_id) {
  return MemberKey(VexaCCC::DB::DashCate::Host.name(), host_id, "networks");
}

Json::Value NetworkReportToJson(const NetworkReport& networks) {
  Json::Value value(Json::objectValue);
  Json::Value& states = value["states"] = Json::Value(Json::objectValue);
  for (const auto& [id, condition] : networks.conditions) {
    states[id]["state"] = condition.state;
    if (!condition.reason.empty()) states[id]["reason"] = condition.reason;
  }
  Json::Value& found = value["found"] = Json::Value(Json::arrayValue);
  for (const FoundNetwork& network : networks.found) {
    Json::Value& entry = found.append(Json::Value(Json::objectValue));
    entry["name"] = network.name;
    entry["kind"] = network.kind;
    if (!network.subnet.empty()) entry["subnet"] = network.subnet;
    if (!network.is_active) entry["active"] = false;
  }
  Json::Value& subnets = value["subnets"] = Json::Value(Json::arrayValue);
  for (const std::string& subnet : networks.subnets) subnets.append(subnet);
  return value;
}

NetworkReport ParseNetworkReport(const Json::Value& value) {
  NetworkReport networks;
  const Json::Value& states = json::Member(value, "states");
  for (const std::string& id : json::MemberNames(states)) {
    if (networks.conditions.size() == kMaxReported) break;
    const Json::Value& state = json::Member(states, id);
    std::string word = json::StringMember(state, "state");
    const bool is_known = word == kNetworkReady || word == kNetworkMissing || word == kNetworkFailed;
    if (!is_known) continue;
    networks.conditions[id] = {std::move(word), SanitizeForLog(json::StringMember(state, "reason"), kMaxReasonBytes)};
  }
  for (const Json::Value& entry : json::Elements(json::Member(value, "found"))) {
    if (networks.found.size() == kMaxReported) break;
    FoundNetwork found{json::StringMember(entry, "name"), json::StringMember(entry, "kind"),
                       json::StringMember(entry, "subnet")};
    const Json::Value& active = json::Member(entry, "active");
    found.is_active = !active.isBool() || active.asBool();
    if (!IsRecordName(found.name)) continue;
    if (!FindNetworkKind(found.kind)) found.kind = "other";
    if (!ParseIpv4Subnet(found.subnet)) found.subnet.clear();
    networks.found.push_back(std::move(found));
  }
  networks.subnets = TextsOf(value, "subnets");
  return networks;
}

Result<std::map<std::string, std::optional<NetworkReport>>> ReadNetworkReports(const store::Snapshot& snapshot) {
  const std::string category(VexaCCC::DB::DashCate::Host.name());
  const auto ids = snapshot.Children(CategoryKey(category));
  if (!ids) return ids.error();
  std::map<std::string, std::optional<NetworkReport>> reports;
  for (const std::string& id : *ids) {
    const auto host = snapshot.Get(ObjectKey(category, id));
    if (!host) return host.error();
    if (!host->has_value()) continue;
    const auto value = snapshot.Get(NetworkReportKey(id));
    if (!value) return value.error();
    std::optional<NetworkReport>& report = reports[id];
    if (!value->has_value()) continue;
    if (const Result<Json::Value> parsed = ParseJson((*value)->text)) report = ParseNetworkReport(*parsed);
  }
  return reports;
}

std::string NetworksGuardKey() { return store::MakeKey({"networks"}); }

Status CompareNetworksRevision(const store::Snapshot& snapshot, store::Transaction& transaction) {
  const auto guard = snapshot.Get(NetworksGuardKey());
  if (!guard) return guard.error();
  transaction.compares.push_back({NetworksGuardKey(), *guard ? (*guard)->revision : 0});
  return {};
}

Result<std::vector<std::string>> NetworkNames(const store::Snapshot& snapshot) {
  const auto networks = ReadNetworks(snapshot);
  if (!networks) return networks.error();
  const auto reports = ReadNetworkReports(snapshot);
  if (!reports) return reports.error();
  std::set<std::string> names;
  std::set<std::string> managed;
  for (const StoredNetwork& stored : *networks) {
    names.insert(stored.network.name);
    managed.insert(stored.network.network_name);
  }
  for (const auto& [host_id, report] : *reports) {
    if (!report) continue;
    for (const FoundNetwork& found : report->found) {
      if (!managed.contains(found.name)) names.insert(found.name);
    }
  }
  return std::vector<std::string>(names.begin(), names.end());
}

}  // namespace vexa::records
