// The program vexa-network: makes bridges and VLANs for a host that has no rights of its own (bridge_service.h).
// `vexa-network --help` explains its options.
#include <pwd.h>
#include <syslog.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "host/base/packet_socket.h"
#include "host/machine/bridge_service.h"

namespace {

constexpr char kHelp[] = R"(vexa-network: makes bridges and VLANs for the virtualization host.
Usage: vexa-network [--socket PATH] [--user NAME]

Options:
  --help                      Print this help and exit
  --socket PATH               Where to listen, unless the service manager passes a socket (default:
                              /run/vexa-network/socket)
  --user NAME                 The account that may ask, besides root

It serves the daemon, which has no rights of its own: it makes bridges with an uplink and VLANs, and removes the ones
it has made.
)";

int Fail(const std::string& sentence) {
  std::fprintf(stderr, "vexa-network: %s\n", sentence.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = vexa::machine::kBridgeSocket;
  std::string user;
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::fputs(kHelp, stdout);
    return 0;
  }
  for (int i = 1; i < argc; i += 2) {
    const std::string_view option = argv[i];
    if (i + 1 == argc || (option != "--socket" && option != "--user")) {
      std::fprintf(stderr, "usage: vexa-network [--socket PATH] [--user NAME]\n");
      return 2;
    }
    (option == "--socket" ? path : user) = argv[i + 1];
  }
  ::openlog("vexa-network", LOG_PID, LOG_DAEMON);
  vexa::machine::BridgeServiceOptions options;
  if (!user.empty()) {
    const passwd* const entry = ::getpwnam(user.c_str());
    if (entry == nullptr) return Fail("There is no user '" + user + "'");
    options.users.push_back(entry->pw_uid);
  }
  vexa::Descriptor listener(vexa::PassedListener());
  if (listener.get() < 0) {
    auto made = vexa::ListenForPackets(path);
    if (!made) return Fail(made.error().ToString());
    listener = *std::move(made);
  }
  options.listener = listener.get();
  vexa::machine::ServeBridgeRequests(options);
  return 0;
}
