// The program vexa-auth: checks passwords of the machine's users for a host that may not (password_service.h).
// `vexa-auth --help` explains its options.
#include <pwd.h>
#include <syslog.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <utility>

#include "host/accounts/password_service.h"
#include "host/base/packet_socket.h"

namespace {

constexpr char kUsage[] = "[--socket PATH] [--user NAME] [--service NAME] [--pam-directory PATH]";
constexpr char kHelp[] = R"(
Options:
  --help                      Print this help and exit
  --socket PATH               Where to listen, unless the service manager passes a socket (default:
                              /run/vexa-auth/socket)
  --user NAME                 The account that may ask, besides root
  --service NAME              The PAM service (default: vexad); the setting pam-service of vexad must be the same
  --pam-directory PATH        The folder of PAM's service files (default: /etc/pam.d)

It serves the daemon, which may not read the hashes of passwords: it answers whether a password is right, and nothing
else.
)";

int Fail(const std::string& sentence) {
  std::fprintf(stderr, "vexa-auth: %s\n", sentence.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]) == "--help") {
    std::printf(
        "vexa-auth: checks passwords of this machine's users for the virtualization host.\nUsage: vexa-auth %s\n%s",
        kUsage, kHelp);
    return 0;
  }
  std::string path = vexa::accounts::kPasswordSocket;
  std::string user;
  vexa::accounts::PasswordServiceOptions options;
  const std::pair<std::string_view, std::string*> settings[] = {{"--socket", &path},
                                                                {"--user", &user},
                                                                {"--service", &options.service},
                                                                {"--pam-directory", &options.config_directory}};
  for (int i = 1; i < argc; i += 2) {
    std::string* value = nullptr;
    for (const auto& [option, target] : settings) {
      if (option == argv[i]) value = target;
    }
    if (value == nullptr || i + 1 == argc) {
      std::fprintf(stderr, "usage: vexa-auth %s\n", kUsage);
      return 2;
    }
    *value = argv[i + 1];
  }
  ::openlog("vexa-auth", LOG_PID, LOG_AUTHPRIV);
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
  vexa::accounts::ServePasswordChecks(options);
  return 0;
}
