#include <set>
#include <utility>

#include "host/transport/added_parameter.h"
#include "host/transport/messages.h"
#include "host/transport/transport.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_senders.h"

namespace VexaCCC {
namespace {

using vexa::transport::CurrentTransport;

std::vector<Json::Value> SendToHosts(const std::vector<std::string>& host_ids, const VexaDRCore::Request& request) {
  if (const auto transport = CurrentTransport()) {
    return transport->Call(host_ids, vexa::transport::WithAddedParameter(request));
  }
  std::vector<Json::Value> replies;
  replies.reserve(host_ids.size());
  for (const std::string& id : host_ids) {
    replies.push_back(vexa::transport::FailedReply(id, "this host is not serving requests"));
  }
  return replies;
}

}  // namespace

Sender::Sender() = default;
Sender::Sender(const std::string& host_id) : host_id_(host_id) {}

Sender Sender::localhost() { return Sender(DB::DBLocalhostID()); }

void Sender::setHost(const std::string& host_id) { host_id_ = host_id; }

VexaDRCore::Response Sender::process(const VexaDRCore::Request& request) {
  return VexaDRCore::Response(std::move(SendToHosts({host_id_}, request).front()));
}

MultiResponse::MultiResponse(std::vector<std::string> host_ids, std::map<std::string, VexaDRCore::Response> responses)
    : host_ids_(std::move(host_ids)), responses_(std::move(responses)) {}

std::vector<std::string> MultiResponse::getHostList() const { return host_ids_; }

VexaDRCore::Response MultiResponse::getResponse(const std::string& host_id) const {
  const auto found = responses_.find(host_id);
  return found == responses_.end() ? VexaDRCore::Response() : found->second;
}

MultiSender::MultiSender(const std::vector<std::string>& host_ids) : host_ids_(host_ids) {}

MultiSender MultiSender::allHosts() {
  std::vector<std::string> host_ids;
  DB::DashCate::Host.List(host_ids);  // unchanged on failure
  return MultiSender(host_ids);
}

MultiResponse MultiSender::process(const VexaDRCore::Request& request) {
  // A host that is named twice gets the request once, because there is one response for each host.
  const std::set<std::string> distinct(host_ids_.begin(), host_ids_.end());
  const std::vector<std::string> receivers(distinct.begin(), distinct.end());
  std::vector<Json::Value> replies = SendToHosts(receivers, request);
  std::map<std::string, VexaDRCore::Response> responses;
  for (std::size_t i = 0; i < receivers.size(); ++i) {
    responses.emplace_hint(responses.end(), receivers[i], VexaDRCore::Response(std::move(replies[i])));
  }
  return MultiResponse(host_ids_, std::move(responses));
}

}  // namespace VexaCCC
