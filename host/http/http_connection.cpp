#include "host/http/http_connection.h"

#include <algorithm>
#include <utility>

#include "host/http/http_io_thread.h"
#include "host/http/http_response.h"
#include "host/http/http_rules.h"

namespace vexa::http {
namespace {

using boost::system::error_code;

// How many times one connection is read per event, while the other connections of the thread wait.
constexpr int kReadsPerEvent = 16;

}  // namespace

Connection::Connection(IoThread& io, std::size_t slot, AcceptedConnection&& accepted)
    : io_(io),
      slot_(slot),
      place_(std::move(accepted.place)),
      is_refusal_(place_ == nullptr),
      peer_(std::move(accepted.peer)),
      socket_(io.context().get_executor()),
      transport_(accepted.fd, accepted.tls.get()) {
  socket_.assign(boost::asio::generic::stream_protocol(accepted.family, 0), accepted.fd);
  accepted.Release();
}

Connection::~Connection() = default;

void Connection::Start() {
  const ServerLimits& limits = io_.server().options.limits;
  if (!is_refusal_ && !ClaimPlace()) return Close();
  if (is_refusal_) {
    NewRequest();
    RefuseAsBusy();
  } else if (transport_.tls()) {
    phase_ = Phase::kHandshake;
    SetDeadline(limits.handshake);
    ArmRead();
  } else {
    EnterHeader(limits.header);
    ArmRead();
  }
}

void Connection::EnterHeader(std::chrono::milliseconds timeout) {
  phase_ = Phase::kHeader;
  header_started_ = false;
  header_scan_ = 0;
  parser_.reset();
  SetDeadline(timeout);
}

void Connection::ArmRead() {
  if (read_armed_) return;
  read_armed_ = true;
  socket_.async_wait(StreamSocket::wait_read, [self = shared_from_this()](const error_code& error) {
    self->read_armed_ = false;
    if (error) return;
    self->OnReadable();
    self->ReportState();
  });
}

void Connection::ArmWrite() {
  if (write_armed_) return;
  write_armed_ = true;
  socket_.async_wait(StreamSocket::wait_write, [self = shared_from_this()](const error_code& error) {
    self->write_armed_ = false;
    if (error) return;
    self->OnWritable();
    self->ReportState();
  });
}

void Connection::OnReadable() {
  if (phase_ == Phase::kTunnel) return;
  if (phase_ == Phase::kHandshake) return Handshake();
  if (write_wants_read_ && HasOutput() && Flush()) ResumeInput();
  if (phase_ == Phase::kLinger) return Linger();
  if (phase_ != Phase::kClosed) ReadInput();
}

void Connection::OnWritable() {
  if (phase_ == Phase::kTunnel) return;
  if (phase_ == Phase::kHandshake) return Handshake();
  if (HasOutput() && Flush()) ResumeInput();
  if (std::exchange(read_wants_write_, false) && phase_ != Phase::kLinger && phase_ != Phase::kClosed) ReadInput();
}

void Connection::Handshake() {
  switch (transport_.Handshake().state) {
    case IoState::kWantRead:
      return ArmRead();
    case IoState::kWantWrite:
      return ArmWrite();
    case IoState::kDone:
      peer_.tls = true;
      ReadClientCertificate(transport_.ssl(), peer_);
      EnterHeader(io_.server().options.limits.header);
      return ReadInput();  // the request may have arrived together with the end of the handshake
    default:
      return Close();
  }
}

// Reads and processes the available input. While a request is being answered, it buffers requests that the client
// sends in advance, up to a limit, and detects that the client has left.
void Connection::ReadInput() {
  auto& scratch = io_.read_scratch();
  for (int i = 0; i < kReadsPerEvent; ++i) {
    std::size_t room = scratch.size();
    if (!AwaitsInput()) {
      const std::size_t bound = io_.server().options.limits.header_bytes;
      room = std::min(room, bound - std::min(bound, buffer_.size()));
      reading_paused_ = room == 0;
      if (reading_paused_) return;
    }
    const IoResult result = transport_.Read(scratch.data(), room);
    if (result.state == IoState::kWantRead) break;
    if (result.state == IoState::kWantWrite) {
      read_wants_write_ = true;
      return ArmWrite();
    }
    if (result.state == IoState::kEnd) return OnPeerEnd();
    if (result.state == IoState::kFailed) return Close();
    ConsumeInput(std::string_view(scratch.data(), result.bytes));
    if (phase_ == Phase::kLinger || phase_ == Phase::kClosed) return;
    if (result.bytes < room && !transport_.HasPending()) break;
    if (i + 1 == kReadsPerEvent && transport_.HasPending()) --i;  // there would be no readiness event for it
  }
  ArmRead();
}

void Connection::OnPeerEnd() {
  const bool being_answered = phase_ == Phase::kHandler || phase_ == Phase::kWrite;
  // In practice, the end of TLS ends both directions; the end of a plain stream may be a half-close.
  if (!being_answered || transport_.tls()) return Close();
  peer_ended_ = true;
}

void Connection::ConsumeInput(std::string_view input) {
  if (!AwaitsInput()) {
    buffer_.append(input);
    return;
  }
  if (buffer_.empty()) {
    const std::size_t used = ProcessInput(input);
    buffer_.assign(input.substr(used));
  } else {
    buffer_.append(input);
    buffer_.erase(0, ProcessInput(buffer_));
  }
  const bool ended = phase_ == Phase::kLinger || phase_ == Phase::kClosed;
  if (ended || buffer_.empty()) std::string().swap(buffer_);  // an idle connection keeps no memory
}

std::size_t Connection::ProcessInput(std::string_view bytes) {
  std::size_t used = 0;
  while (AwaitsInput()) {
    const std::string_view rest = bytes.substr(used);
    const std::size_t step = phase_ == Phase::kHeader ? ProcessHeader(rest) : ProcessBody(rest);
    if (step == 0) break;
    used += step;
  }
  return used;
}

std::size_t Connection::ProcessHeader(std::string_view bytes) {
  const ServerLimits& limits = io_.server().options.limits;
  std::size_t skipped = 0;
  // Some clients end a body with an empty line that is not part of it.
  while (!header_started_ && bytes.substr(skipped, 2) == "\r\n") skipped += 2;
  bytes.remove_prefix(skipped);
  if (bytes.empty() || (!header_started_ && bytes == "\r")) return skipped;
  if (!header_started_) {
    header_started_ = true;
    SetDeadline(limits.header);
  }
  const std::size_t end = bytes.find("\r\n\r\n", header_scan_);
  if (end != std::string_view::npos && end + 4 <= limits.header_bytes) {
    BeginRequest(bytes.substr(0, end + 4));
    return skipped + end + 4;
  }
  int status = 0;
  for (std::size_t i = bytes.find('\n', header_scan_); i < std::min(bytes.size(), end); i = bytes.find('\n', i + 1)) {
    if (i == 0 || bytes[i - 1] != '\r') status = 400;  // a bare line feed: such a header might never end
  }
  if (bytes.size() >= limits.header_bytes) status = bytes.find('\n') < limits.header_bytes ? 431 : 414;
  if (!IsToken(bytes.substr(0, 1))) status = 400;  // TLS on a plain port, for example
  header_scan_ = bytes.size() - std::min<std::size_t>(bytes.size(), 3);
  if (status == 0) return skipped;
  NewRequest();
  Refuse(status);
  return skipped + bytes.size();
}

void Connection::NewRequest() {
  const std::string id = NewRequestId();
  std::copy(id.begin(), id.end(), request_id_.begin());
  http_1_0_ = false;
  is_head_request_ = false;
  close_after_response_ = false;
  io_.server().requests.fetch_add(1, std::memory_order_relaxed);
}

void Connection::BeginRequest(std::string_view header) {
  const ServerOptions& options = io_.server().options;
  NewRequest();
  is_head_request_ = header.substr(0, 5) == "HEAD ";
  parser_ = std::make_unique<RequestParser>(options.limits.body_bytes);
  header_bytes_ = header.size();
  if (const int status = parser_->ParseHeader(header); status != 0) return Refuse(status);
  close_after_response_ = !parser_->keep_alive();
  http_1_0_ = parser_->is_http_1_0();
  HttpRequest& request = parser_->request();
  request.id = request_id();
  request.peer = peer_;
  std::optional<HttpResponse> refusal;
  try {
    if (options.on_header) refusal = options.on_header(request);
  } catch (...) {
    refusal = io_.server().MakeError(500, request_id());
  }
  if (request.id.size() == request_id_.size()) std::copy(request.id.begin(), request.id.end(), request_id_.begin());
  if (refusal) {
    if (parser_->expects_body()) close_after_response_ = true;  // instead of reading an unwanted body
    return Respond(std::move(*refusal));
  }
  if (!parser_->expects_body()) return Dispatch();
  phase_ = Phase::kBody;
  RecordProgress();
  SetDeadline(options.limits.body);
  must_send_continue_ = parser_->expects_continue();
}

std::size_t Connection::ProcessBody(std::string_view bytes) {
  if (std::exchange(must_send_continue_, false) && bytes.empty()) Send("HTTP/1.1 100 Continue\r\n\r\n", {});
  if (bytes.empty()) return 0;
  const RequestParser::Progress progress = parser_->ParseBody(bytes);
  RecordProgress();
  const std::size_t left = bytes.size() - progress.consumed;
  if (progress.status != 0) {
    Refuse(progress.status);
  } else if (progress.done) {
    Dispatch();
  } else if (left > io_.server().options.limits.header_bytes) {
    Refuse(431);  // only a chunk's header or the trailers must fit in one piece
  }
  return progress.consumed;
}

void Connection::Dispatch() {
  phase_ = Phase::kHandler;
  deadline_ = Clock::time_point::max();
  request_number_ = io_.NextRequestNumber();
  HttpRequest request = std::move(parser_->request());
  upgrade_ = request.upgrade;
  websocket_key_ = request.websocket_key;
  parser_.reset();
  ReportState();  // before the handler can know of it, so that nobody finds an idle connection with a request
  const Responder responder(std::make_shared<Responder::Impl>(io_.mailbox(), slot_, request_number_));
  try {
    io_.server().options.on_request(std::move(request), responder);
  } catch (...) {
    responder.Send(io_.server().MakeError(500, request_id()));
  }
}

}  // namespace vexa::http
