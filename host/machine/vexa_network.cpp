// The program vexa-network: makes bridges and VLANs for a host that has no rights of its own (bridge_service.h).
// usage: vexa-network [--socket PATH] [--user NAME]
#include <grp.h>
#include <pwd.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <utility>

#include "host/machine/bridge_service.h"

namespace {

constexpr int kFirstPassedDescriptor = 3;  // sd_listen_fds(3)

// The socket that the service manager has opened; -1 without one.
int PassedListener() {
  const char* const pid = std::getenv("LISTEN_PID");
  const char* const count = std::getenv("LISTEN_FDS");
  if (pid == nullptr || count == nullptr || std::to_string(::getpid()) != pid || std::string_view(count) != "1") {
    return -1;
  }
  return kFirstPassedDescriptor;
}

int Fail(const std::string& sentence) {
  std::fprintf(stderr, "vexa-network: %s\n", sentence.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  std::string path = vexa::machine::kBridgeSocket;
  std::string user;
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
  vexa::Descriptor listener(PassedListener());
  if (listener.get() < 0) {
    auto made = vexa::machine::ListenForBridgeRequests(path);
    if (!made) return Fail(made.error().ToString());
    listener = *std::move(made);
  }
  options.listener = listener.get();
  vexa::machine::ServeBridgeRequests(options);
  return 0;
}
