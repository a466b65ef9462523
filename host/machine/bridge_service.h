// How a host without rights gets its bridges: it asks the program vexa-network, which has CAP_NET_ADMIN and nothing
// else, over a Unix socket.
//
// Each connection has one request and one reply, each a packet (SOCK_SEQPACKET) with a JSON object of at most 4 KiB:
//   {"action": "make" or "remove", …BridgeRequestToJson}   →   {"code": "" or the name of an ErrorCode, "message"}
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "host/base/result.h"
#include "host/machine/bridge_files.h"
#include "host/machine/bridge_request.h"

namespace vexa::machine {

inline constexpr char kBridgeSocket[] = "/run/vexa-network/socket";

// Makes bridges in this process if it may change interfaces, and otherwise asks the service. Threads: one at a time.
BridgeMaker SystemBridgeMaker();
BridgeMaker BridgeMakerInProcess(std::string folder);
// A call that has no answer after `timeout_s` is kUnavailable. The default is shorter than what a stop of the host
// takes.
BridgeMaker BridgeMakerOverSocket(std::string path, int timeout_s = 15);

struct BridgeServiceOptions {
  int listener = -1;
  // Users whose processes may ask, besides root. All others are disconnected without a reply.
  std::vector<uid_t> users;
  std::string folder = kNetworkdFolder;
};

// Serves one request after the other, until the listener is shut down.
void ServeBridgeRequests(const BridgeServiceOptions& options);

}  // namespace vexa::machine
