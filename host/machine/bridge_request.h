// What is asked of the code that makes bridges: of this process, when it may, or of the program vexa-network.
#pragma once

#include <json/value.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::machine {

// A bridge of the kernel for a network of the cluster.
struct BridgeRequest {
  std::string network_id;  // a UUID; the bridge is marked with it and the next one
  std::string host_id;     // a UUID: one machine may have several hosts
  std::string bridge;
  std::string uplink;           // the interface that becomes a port of the bridge, or that the VLAN is of
  int vlan_id = 0;              // 0: none
  bool move_addresses = false;  // the bridge takes over the addresses and routes of an uplink that has some
  bool operator==(const BridgeRequest&) const = default;
};

// Errors: kInvalid with a sentence.
Status CheckBridgeRequest(const BridgeRequest& request);

Json::Value BridgeRequestToJson(const BridgeRequest& request);
// Total: members of other types count as missing, and CheckBridgeRequest refuses what is left.
BridgeRequest ParseBridgeRequest(const Json::Value& value);

// Who an interface was made for.
struct BridgeMark {
  std::string network_id;
  std::string host_id;
  bool operator==(const BridgeMark&) const = default;
};
// The alias (ip-link(8)) of interfaces that this system has made.
std::string BridgeAlias(const BridgeMark& mark);
// Not set: another alias.
std::optional<BridgeMark> ParseBridgeAlias(std::string_view alias);

// Both are idempotent.
struct BridgeMaker {
  // Makes the bridge, and the VLAN, and keeps them over a restart of the machine. Errors: kInvalid; kNotFound (there is
  // no such uplink); kConflict (another program has made the bridge, or the uplink is a port of another one); kDenied
  // (the uplink has addresses or the default route, and move_addresses is not set; or the rights are missing);
  // kUnavailable (vexa-network does not answer); kInternal. After an error, addresses and routes are where they were.
  std::function<Status(const BridgeRequest& request)> make;
  // Removes what was made for the network; only `network_id`, `host_id` and `bridge` count. Never removes an interface
  // without their mark. Addresses and routes that were moved return to the uplink. Errors as above.
  std::function<Status(const BridgeRequest& request)> remove;
};

}  // namespace vexa::machine
