#include "host/accounts/password_service.h"

#include <security/pam_appl.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

#include "host/accounts/accounts.h"
#include "host/base/packet_socket.h"
#include "host/base/sanitize_for_log.h"

namespace vexa::accounts {
namespace {

using Outcome = PasswordAnswer::Outcome;

constexpr std::size_t kMaxServiceName = 64;
constexpr std::size_t kMaxAccountName = 64;
constexpr std::size_t kMaxCause = 256;
// The largest question, and larger than any answer.
constexpr std::size_t kMaxPacket = kMaxServiceName + 1 + kMaxAccountName + 1 + PAM_MAX_RESP_SIZE;
// Checks at the same time: more logins than a host has in the seconds that a wrong password takes.
constexpr int kMaxChildren = 32;

constexpr std::pair<Outcome, std::string_view> kWords[] = {{Outcome::kRight, "right"},
                                                           {Outcome::kWrong, "wrong"},
                                                           {Outcome::kUnusable, "unusable"},
                                                           {Outcome::kFailed, "failed"}};

// A packet that is overwritten when it is no longer needed.
class Packet {
 public:
  Packet() = default;
  Packet(const Packet&) = delete;
  Packet& operator=(const Packet&) = delete;
  ~Packet() { ::explicit_bzero(bytes_.data(), bytes_.size()); }

  // False: nothing came in time, or more than a packet may have.
  bool Receive(int socket) {
    const ssize_t size = ::recv(socket, bytes_.data(), bytes_.size(), 0);
    if (size <= 0 || static_cast<std::size_t>(size) > kMaxPacket) return false;
    size_ = static_cast<std::size_t>(size);
    return true;
  }
  std::string_view text() const { return {bytes_.data(), size_}; }

 private:
  std::array<char, kMaxPacket + 1> bytes_{};
  std::size_t size_ = 0;
};

bool SendText(int socket, const std::string& text) {
  return ::send(socket, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

// The text before the next NUL, which is removed with it; not set without a NUL.
std::optional<std::string_view> TakeText(std::string_view& rest) {
  const std::size_t end = rest.find('\0');
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view text = rest.substr(0, end);
  rest.remove_prefix(end + 1);
  return text;
}

// Not set for a packet that is not a question.
std::optional<PasswordQuestion> ParseQuestion(std::string_view packet) {
  const auto service = TakeText(packet);
  const auto name = TakeText(packet);
  if (!service || !name || packet.find('\0') != std::string_view::npos) return std::nullopt;
  if (service->size() > kMaxServiceName || !IsValidAccountName(*name) || packet.size() >= PAM_MAX_RESP_SIZE) {
    return std::nullopt;
  }
  return PasswordQuestion{std::string(*service), std::string(*name), std::string(packet)};
}

PasswordAnswer ParseAnswer(std::string_view packet) {
  const std::size_t end = packet.find('\0');
  const std::string_view word = packet.substr(0, end);
  const std::string text(end == std::string_view::npos ? "" : packet.substr(end + 1));
  for (const auto& [outcome, name] : kWords) {
    if (name != word) continue;
    if (outcome == Outcome::kRight && IsValidAccountName(text)) return {outcome, text, ""};
    if (outcome != Outcome::kRight) return {outcome, "", SanitizeForLog(text, kMaxCause)};
  }
  return {Outcome::kFailed, "", "The answer of the service vexa-auth is not valid"};
}

std::string AnswerText(const PasswordAnswer& check) {
  std::string text;
  for (const auto& [outcome, name] : kWords) {
    if (outcome == check.outcome) text = name;
  }
  const std::string& more = check.outcome == Outcome::kRight ? check.user : check.cause;
  if (!more.empty()) text.append(1, '\0').append(more);
  return text;
}

// Names, and never passwords, are in the log. PAM's modules log wrong passwords themselves.
void Log(const PasswordQuestion& question, const PasswordAnswer& check) {
  if (check.outcome == Outcome::kRight || check.outcome == Outcome::kWrong) return;
  ::syslog(check.outcome == Outcome::kFailed ? LOG_ERR : LOG_NOTICE, "The password of '%s' %s: %s.",
           question.name.c_str(),
           check.outcome == Outcome::kFailed ? "cannot be checked" : "is right, but the account cannot be used",
           check.cause.c_str());
}

// In the child. A check that takes too long ends with it, by SIGALRM.
void Answer(int socket, const PasswordServiceOptions& options) {
  ::alarm(static_cast<unsigned>(options.question_timeout_s + options.check_timeout_s));
  LimitWaits(socket, options.question_timeout_s);
  std::optional<PasswordQuestion> question;
  {
    Packet packet;
    if (packet.Receive(socket)) question = ParseQuestion(packet.text());
  }
  if (!question) return;
  PasswordAnswer check;
  if (question->service == options.service) {
    check = CheckPasswordWithPam(*question, options.config_directory);
  } else {
    check.cause = "The service vexa-auth checks passwords with the PAM service '" + options.service + "', not '" +
                  SanitizeForLog(question->service, kMaxServiceName) + "'. Set its option --service";
  }
  Wipe(question->password);
  Log(*question, check);
  (void)SendText(socket, AnswerText(check));
}

// Waits for children that have ended, and for one that has not when there are too many.
void Reap(int& children) {
  while (children > 0) {
    const pid_t ended = ::waitpid(-1, nullptr, children < kMaxChildren ? WNOHANG : 0);
    if (ended < 0 && errno == EINTR) continue;
    if (ended <= 0) return;
    --children;
  }
}

}  // namespace

PasswordAnswer AskPasswordService(const std::string& path, const PasswordQuestion& question, int timeout_s) {
  // A NUL would end one of the texts: nothing that PAM takes has one, or is longer.
  for (const std::string* const text : {&question.name, &question.password}) {
    if (text->find('\0') != std::string::npos) return {Outcome::kWrong, "", ""};
  }
  if (!IsValidAccountName(question.name) || question.password.size() >= PAM_MAX_RESP_SIZE) {
    return {Outcome::kWrong, "", ""};
  }
  const Result<Descriptor> socket = ConnectForPackets(path, timeout_s);
  if (!socket) return {Outcome::kFailed, "", "The service vexa-auth cannot be reached: " + socket.error().ToString()};
  std::string text;
  text.reserve(kMaxPacket);  // no copy is left behind by growing
  text.append(question.service).append(1, '\0').append(question.name).append(1, '\0').append(question.password);
  const bool is_sent = SendText(socket->get(), text);
  Wipe(text);
  Packet answer;
  if (!is_sent || !answer.Receive(socket->get())) {
    return {Outcome::kFailed, "", "The service vexa-auth does not answer"};
  }
  return ParseAnswer(answer.text());
}

void ServePasswordChecks(const PasswordServiceOptions& options) {
  int children = 0;
  for (;;) {
    Reap(children);
    const Descriptor socket(::accept4(options.listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.get() < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    if (!IsPeerAllowed(socket.get(), options.users)) continue;
    const pid_t child = ::fork();
    if (child == 0) {
      Answer(socket.get(), options);
      ::_exit(0);
    }
    if (child > 0) {
      ++children;
    } else {
      ::syslog(LOG_ERR, "No process can be started for a password: %s.", std::strerror(errno));
    }
  }
}

}  // namespace vexa::accounts
