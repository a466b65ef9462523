// The sending half of a connection.
#include <algorithm>
#include <utility>

#include "host/http/http_connection.h"
#include "host/http/http_io_thread.h"
#include "host/http/http_reply.h"

namespace vexa::daemon {
namespace {

// Bodies smaller than this share a TLS record with their head.
constexpr std::size_t kOneRecordBytes = 15 * 1024;

}  // namespace

void Connection::Deliver(Answer&& answer) {
  if (phase_ != Phase::kHandler || answer.request != request_) return;
  Respond(answer.response ? std::move(*answer.response) : io_.server().MakeError(500, request_id()));
  Continue();
}

void Connection::Refuse(int status) {
  close_after_ = true;
  Respond(io_.server().MakeError(status, request_id()));
}

void Connection::Respond(HttpResponse&& response) {
  if (response.status < 200 || response.status > 599) response = io_.server().MakeError(500, request_id());
  if (io_.stopping() || (peer_ended_ && buffer_.empty())) close_after_ = true;
  const AfterReply keep = http_1_0_ ? AfterReply::kKeepAliveForHttp10 : AfterReply::kKeepAlive;
  std::string& head = io_.head_scratch();
  head.clear();
  AppendReplyHead(head, response, std::string_view(request_id_.data(), request_id_.size()), io_.Date(),
                  close_after_ ? AfterReply::kClose : keep);
  if (head_only_ || !StatusHasBody(response.status)) response.body.clear();
  if (transport_.tls() && response.body.size() < kOneRecordBytes) {
    head.append(response.body);
    response.body.clear();
  }
  phase_ = Phase::kWrite;
  SetDeadline(io_.server().options.limits.write);
  Send(head, std::move(response.body));
}

IoState Connection::WriteAll(std::string_view& head, std::string_view& body) {
  while (!head.empty() || !body.empty()) {
    const IoResult result = transport_.Write(head, body);
    if (result.state != IoState::kDone) return result.state;
    const std::size_t of_head = std::min(result.bytes, head.size());
    head.remove_prefix(of_head);
    body.remove_prefix(result.bytes - of_head);
  }
  return IoState::kDone;
}

void Connection::Send(std::string_view head, std::string&& body) {
  if (HasOutput()) {  // only a "100 Continue" that is stuck; pending work will find this out as well
    out_head_.append(head);
    out_body_ = std::move(body);
    return;
  }
  std::string_view body_rest = body;
  const IoState state = WriteAll(head, body_rest);
  if (state == IoState::kDone) {
    if (phase_ == Phase::kWrite) FinishResponse();
    return;
  }
  out_head_ = head;
  out_body_sent_ = body.size() - body_rest.size();
  out_body_ = std::move(body);
  write_wants_read_ = state == IoState::kWantRead;
  if (state == IoState::kWantWrite) return ArmWrite();
  if (state == IoState::kWantRead) return ArmRead();
  Close();
}

// True when a response is complete and the connection stays open.
bool Connection::Flush() {
  std::string_view head = out_head_;
  std::string_view body = std::string_view(out_body_).substr(out_body_sent_);
  const IoState state = WriteAll(head, body);
  out_body_sent_ = out_body_.size() - body.size();
  out_head_.erase(0, out_head_.size() - head.size());
  write_wants_read_ = state == IoState::kWantRead;
  if (state == IoState::kWantWrite) {
    ArmWrite();
  } else if (state == IoState::kWantRead) {
    ArmRead();
  } else if (state != IoState::kDone) {
    Close();
  } else {
    std::string().swap(out_head_);
    std::string().swap(out_body_);
    out_body_sent_ = 0;
    if (phase_ == Phase::kWrite) FinishResponse();
    return phase_ == Phase::kHead;
  }
  return false;
}

void Connection::FinishResponse() {
  if (close_after_ || io_.stopping()) return StartDrain();
  EnterHead(io_.server().options.limits.idle);
}

// After a response that did not come from Process(): processes the input that arrived meanwhile.
void Connection::Continue() {
  if (phase_ != Phase::kHead) return;
  if (!buffer_.empty()) Take({});
  if (!AwaitsInput()) return;
  if (peer_ended_) return Close();
  if (std::exchange(paused_, false)) ReadInput();
}

}  // namespace vexa::daemon
