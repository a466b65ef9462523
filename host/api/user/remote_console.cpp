#include "host/api/user/remote_console.h"

#include <fmt/format.h>

#include <utility>

#include "host/transport/host_stream.h"
#include "host/transport/messages.h"
#include "host/transport/transport.h"
#include "json/readers.h"
#include "webapi/error_codes.h"

namespace vexa::api {
namespace {

class RemoteEnd final : public http::TunnelEnd {
 public:
  explicit RemoteEnd(std::unique_ptr<transport::HostStream> stream) : stream_(std::move(stream)) {}

  int fd() const override { return stream_->fd(); }
  http::IoResult Read(char* buffer, std::size_t size) override {
    return ResultOf(stream_->Read(buffer, size), http::IoState::kWantRead);
  }
  http::IoResult Write(std::string_view bytes) override {
    return ResultOf(stream_->Write(bytes), http::IoState::kWantWrite);
  }

 private:
  static http::IoResult ResultOf(const transport::HostStream::Outcome& outcome, http::IoState when_blocked) {
    switch (outcome.state) {
      case transport::HostStream::State::kDone:
        return {http::IoState::kDone, outcome.bytes};
      case transport::HostStream::State::kBlocked:
        return {when_blocked};
      case transport::HostStream::State::kEnd:
        return {http::IoState::kEnd};
      case transport::HostStream::State::kFailed:
        break;
    }
    return {http::IoState::kFailed};
  }

  const std::unique_ptr<transport::HostStream> stream_;
};

Refusal Unreachable(const std::string& host_id, const std::string& why) {
  return {host_error::kUnreachable, fmt::format("The host '{}' could not be reached: {}", host_id, why)};
}

// What the host has answered, which is read as if it were hostile.
Refusal RefusalOf(const std::string& host_id, const std::string& body) {
  const Json::Value reply = transport::ParseReply(host_id, body);
  const Json::Value& error = json::Member(reply, "error");
  std::string reason = json::StringMember(error, "reason");
  if (reason.empty()) reason = json::StringMember(error, "message");
  constexpr std::size_t kMaxReasonBytes = 1024;
  if (reason.size() > kMaxReasonBytes) reason = "The host refused";
  return {json::Int(json::Member(error, "code")), reason};
}

}  // namespace

Result<std::unique_ptr<http::TunnelEnd>, Refusal> OpenRemoteConsole(const std::string& host_id,
                                                                    const ConsoleTarget& target) {
  const auto transport = transport::CurrentTransport();
  if (!transport) return Unreachable(host_id, "this host is stopping");
  auto reply = transport->OpenStream(host_id, fmt::format("{}{}?type={}", kConsolePath, target.guest_id, target.type));
  if (!reply) return Unreachable(host_id, reply.error().ToString());
  if (!reply->stream) return RefusalOf(host_id, reply->body);
  return std::unique_ptr<http::TunnelEnd>(std::make_unique<RemoteEnd>(std::move(reply->stream)));
}

}  // namespace vexa::api
