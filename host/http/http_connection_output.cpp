// The sending half of a connection.
#include <algorithm>
#include <utility>

#include "host/http/http_connection.h"
#include "host/http/http_io_thread.h"
#include "host/http/http_response.h"

namespace vexa::http {
namespace {

// Bodies smaller than this share a TLS record with their header.
constexpr std::size_t kOneRecordBytes = 15 * 1024;

}  // namespace

void Connection::Deliver(PendingResponse&& pending) {
  if (phase_ != Phase::kHandler || pending.request_number != request_number_) return;
  Respond(pending.response ? std::move(*pending.response) : io_.server().MakeError(500, request_id()));
  ResumeInput();
  ReportState();
}

void Connection::Refuse(int status) {
  close_after_response_ = true;
  Respond(io_.server().MakeError(status, request_id()));
}

void Connection::RefuseAsBusy() {
  close_after_response_ = true;
  HttpResponse response = io_.server().MakeError(503, request_id());
  response.headers.emplace_back("Retry-After", "1");
  Respond(std::move(response));
}

void Connection::Respond(HttpResponse&& response) {
  if (response.owner) SetOwner(*response.owner);
  if (response.tunnel && !upgrade_.empty() && phase_ == Phase::kHandler && !peer_ended_ && !io_.stopping()) {
    return StartTunnel(std::move(*response.tunnel));
  }
  if (response.tunnel) response = io_.server().MakeError(io_.stopping() ? 503 : 500, request_id());
  parser_.reset();  // a refused request must not occupy memory while its response is sent
  if (response.status < 200 || response.status > 599) response = io_.server().MakeError(500, request_id());
  if (response.closes_connection || io_.stopping() || (peer_ended_ && buffer_.empty())) close_after_response_ = true;
  const ConnectionAfterResponse keep =
      http_1_0_ ? ConnectionAfterResponse::kKeepAliveForHttp10 : ConnectionAfterResponse::kKeepAlive;
  std::string& header = io_.header_scratch();
  header.clear();
  AppendResponseHeader(header, response, std::string_view(request_id_.data(), request_id_.size()), io_.Date(),
                       close_after_response_ ? ConnectionAfterResponse::kClose : keep);
  if (is_head_request_ || !StatusHasBody(response.status)) {
    response.body.clear();
    response.shared_body.reset();
  }
  Body body{std::move(response.body), std::move(response.shared_body)};
  if (transport_.tls() && body.text().size() < kOneRecordBytes) {
    header.append(body.text());
    body = {};
  }
  phase_ = Phase::kWrite;
  RecordProgress();
  SetDeadline(io_.server().options.limits.write);
  Send(header, std::move(body));
}

IoState Connection::WriteAll(std::string_view& header, std::string_view& body) {
  while (!header.empty() || !body.empty()) {
    const IoResult result = transport_.Write(header, body);
    if (result.state != IoState::kDone) return result.state;
    RecordProgress();
    const std::size_t of_header = std::min(result.bytes, header.size());
    header.remove_prefix(of_header);
    body.remove_prefix(result.bytes - of_header);
  }
  return IoState::kDone;
}

void Connection::Send(std::string_view header, Body&& body) {
  if (HasOutput()) {  // only a "100 Continue" that is stuck; the pending write sends this too
    out_header_.append(header);
    out_body_ = std::move(body);
    return;
  }
  std::string_view body_rest = body.text();
  const IoState state = WriteAll(header, body_rest);
  if (state == IoState::kDone) {
    if (phase_ == Phase::kWrite) FinishResponse();
    return;
  }
  out_header_ = header;
  out_body_sent_ = body.text().size() - body_rest.size();
  out_body_ = std::move(body);
  write_wants_read_ = state == IoState::kWantRead;
  if (state == IoState::kWantWrite) return ArmWrite();
  if (state == IoState::kWantRead) return ArmRead();
  Close();
}

// True when a response is complete and the connection stays open.
bool Connection::Flush() {
  std::string_view header = out_header_;
  std::string_view body = out_body_.text().substr(out_body_sent_);
  const IoState state = WriteAll(header, body);
  out_body_sent_ = out_body_.text().size() - body.size();
  out_header_.erase(0, out_header_.size() - header.size());
  write_wants_read_ = state == IoState::kWantRead;
  if (state == IoState::kWantWrite) {
    ArmWrite();
  } else if (state == IoState::kWantRead) {
    ArmRead();
  } else if (state != IoState::kDone) {
    Close();
  } else {
    std::string().swap(out_header_);
    out_body_ = Body();
    out_body_sent_ = 0;
    if (phase_ == Phase::kWrite) FinishResponse();
    return phase_ == Phase::kHeader;
  }
  return false;
}

void Connection::FinishResponse() {
  if (close_after_response_ || io_.stopping()) return StartLinger();
  EnterHeader(io_.server().options.limits.idle);
}

// The wait for input that is armed stays and finds nothing to do.
void Connection::StartTunnel(Tunnel&& tunnel) {
  phase_ = Phase::kTunnel;
  ClientSideParts parts{shared_from_this(), socket_,        transport_,    std::exchange(buffer_, {}),
                        request_id(),       websocket_key_, tunnel.stalled};
  auto client = upgrade_ == kWebSocket ? MakeWebSocketSide(std::move(parts)) : MakeRawSide(std::move(parts));
  tunnel_ =
      std::make_shared<TunnelPump>(socket_, std::move(client), std::move(tunnel), [connection = weak_from_this()] {
        if (const auto alive = connection.lock()) alive->Close();
      });
  tunnel_->Start();
}

// After a response that was sent outside of ProcessInput(): processes the input that arrived meanwhile.
void Connection::ResumeInput() {
  if (phase_ != Phase::kHeader) return;
  if (!buffer_.empty()) ConsumeInput({});
  if (!AwaitsInput()) return;
  if (peer_ended_) return Close();
  if (std::exchange(reading_paused_, false)) ReadInput();
}

}  // namespace vexa::http
