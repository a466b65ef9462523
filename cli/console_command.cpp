#include "cli/console_command.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <poll.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <iostream>
#include <optional>
#include <sstream>
#include <vector>

#include "cli/console_client.h"
#include "cli/listing.h"
#include "cli/objects.h"
#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/base64.h"
#include "host/base/descriptor.h"
#include "host/base/files.h"

extern char** environ;

namespace vexa::cli {
namespace {

constexpr const char* kTicket = "/webapi/VEXA.Virtualization.Guest/console_ticket";
constexpr const char* kScreenshot = "/webapi/VEXA.Virtualization.Guest/screenshot";
constexpr const char* kType = "/webapi/VEXA.Virtualization.Guest/type";

// The terminal passes every key on while it lives, and shows none itself.
class RawTerminal {
 public:
  RawTerminal() : is_terminal_(::isatty(STDIN_FILENO) == 1 && ::tcgetattr(STDIN_FILENO, &before_) == 0) {
    if (!is_terminal_) return;
    termios raw = before_;
    ::cfmakeraw(&raw);
    ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
  }
  ~RawTerminal() {
    if (is_terminal_) ::tcsetattr(STDIN_FILENO, TCSANOW, &before_);
  }
  RawTerminal(const RawTerminal&) = delete;
  RawTerminal& operator=(const RawTerminal&) = delete;
  bool is_terminal() const { return is_terminal_; }

 private:
  termios before_{};
  const bool is_terminal_;
};

bool WriteAllTo(int fd, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::write(fd, bytes.data(), bytes.size());
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

// Calls a method with "guest_id" and `parameters`; failures are printed.
CallOutcome CallForGuest(HttpClient& client, const char* path, const std::string& guest, Json::Value parameters) {
  CallOutcome outcome;
  std::string id;
  outcome.exit_code = FindId(client, kGuests, guest, id);
  if (outcome.exit_code != ExitCode::kOk) return outcome;
  parameters["guest_id"] = id;
  return CallApi(client, path, RenderJson(parameters, JsonLayout::kOneLine));
}

// Null: the failure has been printed, and `exit_code` is set.
std::unique_ptr<ConsoleClient> OpenConsole(const GlobalOptions& global, const std::string& guest, const char* type,
                                           ExitCode& exit_code) {
  const Result<HttpClientOptions> connect = ConnectOptions(global);
  if (!connect) {
    exit_code = Report(connect.error());
    return nullptr;
  }
  HttpClient client(*connect);
  Json::Value parameters(Json::objectValue);
  parameters["type"] = type;
  const CallOutcome ticket = CallForGuest(client, kTicket, guest, std::move(parameters));
  exit_code = ticket.exit_code;
  if (exit_code != ExitCode::kOk) return nullptr;
  auto opened = ConsoleClient::Open(*connect, Text(Member(ticket.data, "path")));
  if (opened) return *std::move(opened);
  exit_code = Report(opened.error());
  return nullptr;
}

// Copies until one side ends. `filter`: of what comes from `in`; null: everything is sent as it is.
void CopyBothWays(ConsoleClient& console, int in, int out, EscapeFilter* filter) {
  std::array<char, 16 * 1024> buffer;
  for (;;) {
    for (;;) {
      const ConsoleClient::Outcome got = console.Read(buffer.data(), buffer.size());
      if (got.state == ConsoleClient::State::kBlocked) break;
      if (got.state == ConsoleClient::State::kEnded || !WriteAllTo(out, {buffer.data(), got.bytes})) return;
    }
    std::array<pollfd, 2> sides = {{{console.fd(), POLLIN, 0}, {in, POLLIN, 0}}};
    if (::poll(sides.data(), sides.size(), -1) < 0 && errno != EINTR) return;
    if (sides[1].revents == 0) continue;
    const ssize_t got = ::read(in, buffer.data(), buffer.size());
    if (got <= 0) return;
    const std::string_view input(buffer.data(), static_cast<std::size_t>(got));
    if (!console.WriteAll(filter ? filter->Filter(input) : std::string(input))) return;
    if (filter && filter->has_left()) return;
  }
}

struct LocalPort {
  Descriptor listener;
  std::uint16_t port = 0;
};

Result<LocalPort> ListenLocally() {
  LocalPort local{Descriptor(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))};
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(local.listener.get(), generic, size) != 0 || ::listen(local.listener.get(), 1) != 0 ||
      ::getsockname(local.listener.get(), generic, &size) != 0) {
    return Error(ErrorCode::kInternal, "No local port can be opened for the viewer");
  }
  local.port = ntohs(address.sin_port);
  return local;
}

// Whether the other end of the connection is a socket of this user, according to /proc/net/tcp: other users of this
// machine can connect to the port as well.
bool IsOwnConnection(int connection) {
  sockaddr_in peer{};
  sockaddr_in own{};
  socklen_t size = sizeof peer;
  if (::getpeername(connection, reinterpret_cast<sockaddr*>(&peer), &size) != 0) return false;
  if (::getsockname(connection, reinterpret_cast<sockaddr*>(&own), &size) != 0) return false;
  const auto text = [](const sockaddr_in& address) {
    return fmt::format("{:08X}:{:04X}", address.sin_addr.s_addr, ntohs(address.sin_port));
  };
  const std::string peer_text = text(peer);
  const std::string own_text = text(own);
  std::ifstream table("/proc/net/tcp");
  for (std::string line; std::getline(table, line);) {
    std::istringstream fields(line);
    std::string number, local, remote, state, queues, timer, retransmissions, user;
    fields >> number >> local >> remote >> state >> queues >> timer >> retransmissions >> user;
    // Both ends: a connection of the peer's port that has ended is listed for a while, too, as root's.
    if (local == peer_text && remote == own_text) return user == std::to_string(::getuid());
  }
  return false;
}

// Not set: it cannot be started.
std::optional<pid_t> StartViewer(const std::string& program, const std::string& url) {
  std::vector<char*> arguments{const_cast<char*>(program.c_str()), const_cast<char*>(url.c_str()), nullptr};
  pid_t pid = 0;
  if (::posix_spawnp(&pid, program.c_str(), nullptr, nullptr, arguments.data(), environ) != 0) return std::nullopt;
  return pid;
}

// The viewer's connection; a negative one: the viewer has ended without connecting.
Descriptor AcceptViewer(const LocalPort& local, pid_t viewer) {
  constexpr int kPollMs = 200;
  for (;;) {
    pollfd readable{local.listener.get(), POLLIN, 0};
    if (::poll(&readable, 1, kPollMs) == 1) {
      Descriptor connection(::accept4(local.listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (connection.get() >= 0 && IsOwnConnection(connection.get())) return connection;
    }
    if (::waitpid(viewer, nullptr, WNOHANG) != 0) return Descriptor();
  }
}

}  // namespace

std::string EscapeFilter::Filter(std::string_view input) {
  std::string sent;
  for (const char c : input) {
    if (at_ == At::kTilde && c == '.') {
      has_left_ = true;
      return sent;
    }
    if (at_ == At::kLineStart && c == '~') {
      at_ = At::kTilde;
      continue;
    }
    if (at_ == At::kTilde && c != '~') sent += '~';
    sent += c;
    at_ = c == '\r' || c == '\n' ? At::kLineStart : At::kWithinLine;
  }
  return sent;
}

ExitCode RunConsole(const GlobalOptions& global, const std::string& guest) {
  ExitCode exit_code = ExitCode::kOk;
  const auto console = OpenConsole(global, guest, "serial", exit_code);
  if (!console) return exit_code;
  {
    const RawTerminal terminal;
    if (terminal.is_terminal() && !global.quiet) {
      std::cerr << fmt::format("Connected to '{}'. Leave with ~. at the start of a line.\r\n", Printable(guest));
    }
    EscapeFilter filter;
    CopyBothWays(*console, STDIN_FILENO, STDOUT_FILENO, &filter);
  }
  if (::isatty(STDIN_FILENO) == 1 && !global.quiet) std::cerr << "\nThe connection is closed.\n";
  return ExitCode::kOk;
}

ExitCode RunViewer(const GlobalOptions& global, const ViewerOptions& options) {
  const Result<LocalPort> local = ListenLocally();
  if (!local) return Report(local.error());
  ExitCode exit_code = ExitCode::kOk;
  const auto console = OpenConsole(global, options.guest, "vnc", exit_code);
  if (!console) return exit_code;
  const auto viewer = StartViewer(options.program, fmt::format("vnc://127.0.0.1:{}", local->port));
  if (!viewer) {
    return Report(Error(ErrorCode::kNotFound, fmt::format("The viewer '{}' cannot be started. Install it, or name "
                                                          "another one with --program",
                                                          Printable(options.program))));
  }
  const Descriptor connection = AcceptViewer(*local, *viewer);
  if (connection.get() < 0) {
    return Report(Error(ErrorCode::kUnavailable, "The viewer has ended without connecting"));
  }
  CopyBothWays(*console, connection.get(), connection.get(), nullptr);
  ::shutdown(connection.get(), SHUT_RDWR);
  int status = 0;
  ::waitpid(*viewer, &status, 0);
  return ExitCode::kOk;
}

ExitCode RunScreenshot(const GlobalOptions& global, const ScreenshotOptions& options) {
  const CallOutcome outcome = CallWithClient(global, [&](HttpClient& client) {
    return CallForGuest(client, kScreenshot, options.guest, Json::Value(Json::objectValue));
  });
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  const auto png = DecodeBase64(Text(Member(outcome.data, "png")));
  if (!png || png->empty()) return Report(MissingInReply("picture"));
  // Others must not see what is on the screen.
  if (const Status written = WriteFileAtomically(options.file, *png, 0600); !written) return Report(written.error());
  return PrintConfirmation(
      global, fmt::format("Wrote the screen of '{}' to '{}'.", Printable(options.guest), Printable(options.file)));
}

ExitCode RunType(const GlobalOptions& global, const TypeOptions& options) {
  Json::Value parameters(Json::objectValue);
  parameters["text"] = options.text + (options.enter ? "\n" : "");
  const CallOutcome outcome = CallWithClient(
      global, [&](HttpClient& client) { return CallForGuest(client, kType, options.guest, parameters); });
  if (outcome.exit_code != ExitCode::kOk) return outcome.exit_code;
  return PrintConfirmation(global, fmt::format("Typed the text in '{}'.", Printable(options.guest)));
}

}  // namespace vexa::cli
