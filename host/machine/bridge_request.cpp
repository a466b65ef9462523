#include "host/machine/bridge_request.h"

#include <fmt/format.h>

#include "host/base/interface_name.h"
#include "host/base/sanitize_for_log.h"
#include "host/base/uuid.h"
#include "json/readers.h"

namespace vexa::machine {
namespace {

constexpr std::string_view kAliasPrefix = "vexa-network ";
constexpr int kMaxVlan = 4094;

Error Invalid(const std::string& what, const std::string& value) {
  return Error(ErrorCode::kInvalid, fmt::format("'{}' is not {}", SanitizeForLog(value, 64), what));
}

bool IsUuid(const std::string& id) { return !id.empty() && NormalizeUuid(id) == id; }

// A name that is also safe in a file name and in a file of systemd-networkd, where '%' and '*' have meanings.
bool IsPlainInterfaceName(const std::string& name) {
  return IsInterfaceName(name) && name.find_first_not_of(
                                      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ"
                                      "0123456789-_.@") == std::string::npos;
}

}  // namespace

Status CheckBridgeRequest(const BridgeRequest& request) {
  if (!IsUuid(request.network_id)) return Invalid("the id of a network", request.network_id);
  if (!IsUuid(request.host_id)) return Invalid("the id of a host", request.host_id);
  if (!IsPlainInterfaceName(request.bridge)) {
    return Invalid("a name for a bridge: use 1 to 15 letters, digits, '-', '_', '.' and '@'", request.bridge);
  }
  if (!request.uplink.empty() && !IsPlainInterfaceName(request.uplink)) {
    return Invalid("a name of an interface: use 1 to 15 letters, digits, '-', '_', '.' and '@'", request.uplink);
  }
  if (request.uplink == request.bridge) return Invalid("another interface than the bridge", request.uplink);
  if (request.vlan_id < 0 || request.vlan_id > kMaxVlan) {
    return Invalid("the tag of a VLAN, 1 to 4094", std::to_string(request.vlan_id));
  }
  return {};
}

Json::Value BridgeRequestToJson(const BridgeRequest& request) {
  Json::Value value(Json::objectValue);
  value["network_id"] = request.network_id;
  value["host_id"] = request.host_id;
  value["bridge"] = request.bridge;
  value["uplink"] = request.uplink;
  value["vlan_id"] = request.vlan_id;
  value["move_addresses"] = request.move_addresses;
  return value;
}

BridgeRequest ParseBridgeRequest(const Json::Value& value) {
  BridgeRequest request;
  request.network_id = json::StringMember(value, "network_id");
  request.host_id = json::StringMember(value, "host_id");
  request.bridge = json::StringMember(value, "bridge");
  request.uplink = json::StringMember(value, "uplink");
  const Json::Value& vlan_id = json::Member(value, "vlan_id");
  request.vlan_id = vlan_id.isInt() ? json::Int(vlan_id) : 0;
  request.move_addresses = json::Member(value, "move_addresses") == Json::Value(true);
  return request;
}

std::string BridgeAlias(const BridgeMark& mark) {
  return fmt::format("{}{} {}", kAliasPrefix, mark.network_id, mark.host_id);
}

std::optional<BridgeMark> ParseBridgeAlias(std::string_view alias) {
  if (!alias.starts_with(kAliasPrefix)) return std::nullopt;
  alias.remove_prefix(kAliasPrefix.size());
  const std::size_t space = alias.find(' ');
  if (space == std::string_view::npos) return std::nullopt;
  BridgeMark mark{std::string(alias.substr(0, space)), std::string(alias.substr(space + 1))};
  if (!IsUuid(mark.network_id) || !IsUuid(mark.host_id)) return std::nullopt;
  return mark;
}

}  // namespace vexa::machine
