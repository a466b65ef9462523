#include "cli/top_command.h"

#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <cstdint>
#include <iostream>
#include <map>
#include <string>

#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "cli/time_text.h"

namespace vexa::cli {
namespace {

constexpr int kIntervalMs = 2000;
constexpr double kKibPerGib = 1024.0 * 1024.0;

termios original_terminal{};

// A shell that reads the next line does not switch the echo on again.
void RestoreTerminalAndExit(int /*signal*/) {
  ::tcsetattr(STDIN_FILENO, TCSANOW, &original_terminal);
  ::_exit(static_cast<int>(ExitCode::kInterrupted));
}

// The terminal passes on each key, without an echo.
class KeyByKey {
 public:
  KeyByKey() : is_terminal_(::tcgetattr(STDIN_FILENO, &original_terminal) == 0) {
    if (!is_terminal_) return;
    struct sigaction action {};
    action.sa_handler = RestoreTerminalAndExit;
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaction(signal, &action, nullptr);
    termios settings = original_terminal;
    settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &settings);
  }
  ~KeyByKey() {
    if (is_terminal_) ::tcsetattr(STDIN_FILENO, TCSANOW, &original_terminal);
  }
  KeyByKey(const KeyByKey&) = delete;
  KeyByKey& operator=(const KeyByKey&) = delete;

  // Whether the user types q, or closes the input, within the interval.
  bool WantsToLeave() const {
    pollfd input{STDIN_FILENO, POLLIN, 0};
    if (::poll(&input, 1, kIntervalMs) <= 0) return false;
    char key = 0;
    return ::read(STDIN_FILENO, &key, 1) <= 0 || key == 'q' || key == 'Q';
  }

 private:
  bool is_terminal_;
};

// "12.5 GiB" for a number of KiB, which may be text; "-" without one.
std::string GibText(const Json::Value& kib) {
  const std::string text = Text(kib);
  const double number = text.empty() ? 0 : std::strtod(text.c_str(), nullptr);
  return number > 0 ? fmt::format("{:.1f} GiB", number / kKibPerGib) : "-";
}

// "37 %": what the processors of a host do; "-" when it did not answer.
std::string LoadText(const Json::Value& load) {
  const auto user = Integer(Member(load, "user_load"));
  const auto system = Integer(Member(load, "system_load"));
  return user && system ? fmt::format("{} %", *user + *system) : "-";
}

// Reads what is shown. The settings of guests change rarely, so each guest is asked about once.
class Screen {
 public:
  explicit Screen(HttpClient& client) : client_(client) {}

  // Failures are printed.
  ExitCode Read() {
    const CallOutcome hosts = ListObjects(client_, kHosts);
    if (hosts.exit_code != ExitCode::kOk) return hosts.exit_code;
    const CallOutcome guests = ListObjects(client_, kGuests);
    if (guests.exit_code != ExitCode::kOk) return guests.exit_code;
    hosts_ = Table{{"HOST", "STATE", "CPU", "CORES", "FREE MEMORY", "MEMORY"}, {}};
    std::map<std::string, std::string> names;
    for (const Json::Value& host : WithStateTexts(Member(hosts.data, kHosts.plural), "state")) {
      const std::string id = Text(Member(host, kHosts.id));
      names[id] = Text(Member(host, kHosts.name));
      const Json::Value details = TryApi(client_, kHostGet, ParameterJson(kHosts.id, id)).data;
      const Json::Value& use = Member(details, "utilization");
      hosts_.rows.push_back({names[id], Text(Member(host, "state")), LoadText(Member(use, "cpu")),
                             OrDash(ReadableText(Member(details, "cpu_cores"))),
                             GibText(Member(Member(use, "memory"), "avail_real")),
                             GibText(Member(details, "ram_size"))});
    }
    guests_ = Table{{"GUEST", "STATE", "SEVERITY", "HOST", "CPUS", "MEMORY"}, {}};
    for (const Json::Value& guest : WithStateTexts(Member(guests.data, kGuests.plural), "status")) {
      const std::string host = Text(Member(guest, "host_id"));
      const Json::Value& settings = SettingsOf(Text(Member(guest, kGuests.id)));
      guests_.rows.push_back({Text(Member(guest, kGuests.name)), Text(Member(guest, "status")),
                              Text(Member(guest, "status_type")), names[host].empty() ? host : names[host],
                              OrDash(ReadableText(Member(settings, "vcpu_num"))),
                              GibText(Member(settings, "vram_size"))});
    }
    return ExitCode::kOk;
  }

  void Print() const {
    PrintTable(std::cout, hosts_);
    std::cout << '\n';
    PrintTable(std::cout, guests_);
  }

 private:
  static std::string OrDash(std::string text) { return text.empty() ? "-" : text; }

  const Json::Value& SettingsOf(const std::string& guest_id) {
    const auto known = settings_.find(guest_id);
    if (known != settings_.end()) return known->second;
    return settings_[guest_id] = TryApi(client_, kGuestGet, ParameterJson(kGuests.id, guest_id)).data;
  }

  HttpClient& client_;
  Table hosts_;
  Table guests_;
  std::map<std::string, Json::Value> settings_;  // by the guest's id
};

}  // namespace

ExitCode RunTop(const GlobalOptions& global, const TopOptions& options) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) return Report(connect.error());
  HttpClient client(*connect);
  Screen screen(client);
  const bool is_shown_once = options.once || ::isatty(STDOUT_FILENO) == 0 || ::isatty(STDIN_FILENO) == 0;
  if (is_shown_once) {
    const ExitCode read = screen.Read();
    if (read == ExitCode::kOk) screen.Print();
    return read;
  }
  const KeyByKey keys;
  do {
    if (const ExitCode read = screen.Read(); read != ExitCode::kOk) return read;
    std::cout << "\x1b[H\x1b[2J";
    screen.Print();
    std::cout << "\nq leaves." << std::flush;
  } while (!keys.WantsToLeave());
  std::cout << '\n';
  return ExitCode::kOk;
}

}  // namespace vexa::cli
