#include "host/machine/bridge_service.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <syslog.h>

#include <array>
#include <cerrno>
#include <optional>
#include <utility>

#include "host/base/json_parse.h"
#include "host/base/packet_socket.h"
#include "host/base/sanitize_for_log.h"
#include "host/machine/kernel_bridges.h"
#include "json/readers.h"

namespace vexa::machine {
namespace {

constexpr std::size_t kMaxPacket = 4096;
constexpr std::size_t kMaxMessage = 512;
// A client that sends nothing must not keep others waiting; a request itself is done in milliseconds.
constexpr int kServerTimeoutS = 5;

constexpr ErrorCode kCodes[] = {ErrorCode::kInvalid, ErrorCode::kNotFound, ErrorCode::kConflict,
                                ErrorCode::kDenied,  ErrorCode::kBusy,     ErrorCode::kUnavailable,
                                ErrorCode::kNoSpace, ErrorCode::kCorrupt,  ErrorCode::kInternal};

// Not set: nothing came, or more than a packet may have.
std::optional<std::string> Receive(int socket) {
  std::array<char, kMaxPacket + 1> buffer{};
  const ssize_t size = ::recv(socket, buffer.data(), buffer.size(), 0);
  if (size <= 0 || size > static_cast<ssize_t>(kMaxPacket)) return std::nullopt;
  return std::string(buffer.data(), static_cast<std::size_t>(size));
}

bool Send(int socket, const Json::Value& value) {
  const std::string text = json::ToText(value);
  return ::send(socket, text.data(), text.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(text.size());
}

Error Unavailable(const std::string& cause) {
  return Error(ErrorCode::kUnavailable,
               "This host may not make bridges: start the service vexa-network, or make the bridge", cause);
}

Result<Json::Value> Ask(const std::string& path, int timeout_s, const Json::Value& request) {
  const Result<Descriptor> socket = ConnectForPackets(path, timeout_s);
  if (!socket) return Unavailable(socket.error().ToString());
  const auto reply = Send(socket->get(), request) ? Receive(socket->get()) : std::nullopt;
  if (!reply) return Unavailable("It does not answer");
  return ParseJson(*reply);
}

Status Call(const std::string& path, int timeout_s, const char* action, const BridgeRequest& request) {
  Json::Value value = BridgeRequestToJson(request);
  value["action"] = action;
  const Result<Json::Value> reply = Ask(path, timeout_s, value);
  if (!reply) return reply.error();
  const Json::Value& name = json::Member(*reply, "code");
  if (name == Json::Value("")) return {};
  for (const ErrorCode code : kCodes) {
    if (name == Json::Value(std::string(ErrorCodeName(code)))) {
      return Error(code, SanitizeForLog(json::StringMember(*reply, "message"), kMaxMessage));
    }
  }
  return Unavailable("Its answer is not valid");
}

// Does not repeat itself: hosts repeat what fails every few seconds.
void Log(const std::string& action, const BridgeRequest& request, const Status& done) {
  static std::string last;
  const std::string sentence = fmt::format("{} the bridge '{}' for the network {}: {}.", action,
                                           SanitizeForLog(request.bridge, 64), SanitizeForLog(request.network_id, 64),
                                           done ? "done" : SanitizeForLog(done.error().ToString(), kMaxMessage));
  if (std::exchange(last, sentence) == sentence) return;
  ::syslog(done ? LOG_INFO : LOG_WARNING, "%s", sentence.c_str());
}

Status Act(const std::string& text, const std::string& folder) {
  const Result<Json::Value> value = ParseJson(text);
  if (!value || !value->isObject()) return Error(ErrorCode::kInvalid, "The request is not a JSON object");
  const std::string action = json::StringMember(*value, "action");
  const BridgeRequest request = ParseBridgeRequest(*value);
  if (action != "make" && action != "remove") return Error(ErrorCode::kInvalid, "The request has no known action");
  const Status done = action == "make" ? MakeKernelBridge(request, folder) : RemoveKernelBridge(request, folder);
  Log(action, request, done);
  return done;
}

void Serve(int socket, const BridgeServiceOptions& options) {
  if (!IsPeerAllowed(socket, options.users)) return;
  LimitWaits(socket, kServerTimeoutS);
  const auto request = Receive(socket);
  if (!request) return;
  const Status done = Act(*request, options.folder);
  Json::Value reply(Json::objectValue);
  reply["code"] = done ? "" : std::string(ErrorCodeName(done.error().code()));
  reply["message"] = done ? "" : SanitizeForLog(done.error().ToString(), kMaxMessage);
  (void)Send(socket, reply);
}

}  // namespace

BridgeMaker BridgeMakerInProcess(std::string folder) {
  return {[folder](const BridgeRequest& request) { return MakeKernelBridge(request, folder); },
          [folder](const BridgeRequest& request) { return RemoveKernelBridge(request, folder); }};
}

BridgeMaker BridgeMakerOverSocket(std::string path, int timeout_s) {
  return {[path, timeout_s](const BridgeRequest& request) { return Call(path, timeout_s, "make", request); },
          [path, timeout_s](const BridgeRequest& request) { return Call(path, timeout_s, "remove", request); }};
}

BridgeMaker SystemBridgeMaker() {
  return MayChangeInterfaces() ? BridgeMakerInProcess(kNetworkdFolder) : BridgeMakerOverSocket(kBridgeSocket);
}

void ServeBridgeRequests(const BridgeServiceOptions& options) {
  for (;;) {
    const Descriptor socket(::accept4(options.listener, nullptr, nullptr, SOCK_CLOEXEC));
    if (socket.get() < 0) {
      if (errno == EINTR || errno == ECONNABORTED) continue;
      return;
    }
    Serve(socket.get(), options);
  }
}

}  // namespace vexa::machine
