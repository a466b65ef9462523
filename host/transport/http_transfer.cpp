#include "host/transport/http_transfer.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string_view>
#include <utility>

#include "host/transport/curl_setup.h"
#include "host/transport/messages.h"

namespace vexa::transport {
namespace {

using std::chrono::milliseconds;

constexpr long kMaxIdleAgeS =
    120;  // hosts close idle connections after 300 s, which must not happen while a request is sent
constexpr milliseconds kMaxTimeout = std::chrono::hours(24 * 7);

bool Append(curl_slist*& list, const char* text) {
  curl_slist* const longer = curl_slist_append(list, text);
  if (longer != nullptr) list = longer;
  return longer != nullptr;
}

}  // namespace

HttpTransfer::~HttpTransfer() {
  curl_easy_cleanup(handle_);
  curl_slist_free_all(fields_);
  curl_slist_free_all(connect_to_);
}

bool HttpTransfer::Prepare(std::shared_ptr<const TlsMaterial> tls) {
  tls_ = std::move(tls);
  const auto left = std::chrono::duration_cast<milliseconds>(call_.deadline - std::chrono::steady_clock::now());
  const auto refuse = [this](const char* why) {
    refusal_ = why;
    return false;
  };
  if (left.count() <= 0) return refuse("no reply in time");
  if (!IsNumericAddress(call_.address)) return refuse("its address is not a numeric address and a port");
  handle_ = curl_easy_init();
  const bool made =
      handle_ != nullptr && Append(fields_, "Content-Type: application/json") &&
      Append(fields_, "Accept: application/json") && Append(fields_, "Expect:") &&
      std::ranges::all_of(call_.fields, [this](const std::string& line) { return Append(fields_, line.c_str()); }) &&
      Append(connect_to_, ("::" + call_.address).c_str());
  if (!made) return refuse("no memory for a connection");
  const std::string port = call_.address.substr(call_.address.rfind(':'));
  Set(CURLOPT_URL, ((tls_ ? "https://" : "http://") + call_.host_id + port + call_.path).c_str());
  Set(CURLOPT_CONNECT_TO, connect_to_);
  Set(CURLOPT_PROTOCOLS_STR, tls_ ? "https" : "http");
  Set(CURLOPT_PATH_AS_IS, 1L);
  Set(CURLOPT_FOLLOWLOCATION, 0L);
  Set(CURLOPT_PROXY, "");
  Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
  Set(CURLOPT_HTTP09_ALLOWED, 0L);
  Set(CURLOPT_NOSIGNAL, 1L);
  Set(CURLOPT_USERAGENT, "vexad");
  Set(CURLOPT_ERRORBUFFER, reason_.data());
  SetTimeouts(left);
  SetBody();
  if (tls_) SetTls(*tls_);
  return true;
}

void HttpTransfer::SetTimeouts(milliseconds left) {
  Set(CURLOPT_TIMEOUT_MS, static_cast<long>(std::min(left, kMaxTimeout).count()));
  Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min(left, call_.connect_timeout).count()));
  Set(CURLOPT_MAXAGE_CONN, kMaxIdleAgeS);
  // A call may wait an hour for its reply. Keep-alive probes notice a host that loses its power meanwhile.
  Set(CURLOPT_TCP_KEEPALIVE, 1L);
  Set(CURLOPT_TCP_KEEPIDLE, 30L);
  Set(CURLOPT_TCP_KEEPINTVL, 10L);
}

void HttpTransfer::SetBody() {
  Set(CURLOPT_HTTPHEADER, fields_);
  Set(CURLOPT_POST, 1L);
  Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(call_.body->size()));
  // Not CURLOPT_POSTFIELDS, which libcurl would resend when a kept connection breaks, although the host may already
  // have begun to act on the request. With a Seek that refuses, only a request whose body has not been sent is sent
  // again.
  Set(CURLOPT_READFUNCTION, &HttpTransfer::Read);
  Set(CURLOPT_READDATA, this);
  Set(CURLOPT_SEEKFUNCTION, &HttpTransfer::Seek);
  Set(CURLOPT_SEEKDATA, this);
  Set(CURLOPT_UPLOAD_BUFFERSIZE, 16L * 1024);
  Set(CURLOPT_WRITEFUNCTION, &HttpTransfer::Write);
  Set(CURLOPT_WRITEDATA, this);
  Set(CURLOPT_MAXFILESIZE_LARGE, static_cast<curl_off_t>(kMaxReplyBytes));
}

void HttpTransfer::SetTls(const TlsMaterial& tls) {
  transport::SetTls(handle_, tls);
  Set(CURLOPT_SSL_CTX_FUNCTION, &HttpTransfer::SetUpContext);
  Set(CURLOPT_SSL_CTX_DATA, this);
}

void HttpTransfer::Finish(CURLcode code) {
  using Connection = HttpOutcome::Connection;
  outcome_.connection = sent_ > 0 ? Connection::kMade : Connection::kFailed;
  if (code != CURLE_OK) outcome_.body.clear();
  try {
    if (code != CURLE_OK) outcome_.failure = ReasonOf(code);
  } catch (const std::bad_alloc&) {
    // Without a body and a reason, the caller still sees a failed call.
  }
  done_(std::move(outcome_));
}

void HttpTransfer::Fail(const char* reason) {
  outcome_.body.clear();
  try {
    outcome_.failure = refusal_ != nullptr ? refusal_ : reason;
  } catch (const std::bad_alloc&) {
    // As above.
  }
  done_(std::move(outcome_));
}

std::string HttpTransfer::ReasonOf(CURLcode code) const {
  if (too_large_ || code == CURLE_FILESIZE_EXCEEDED) return "its reply is larger than 16 MiB";
  switch (code) {
    case CURLE_OPERATION_TIMEDOUT:
      return sent_ > 0 ? "no reply in time" : "no connection in time";
    case CURLE_GOT_NOTHING:
    case CURLE_SEND_FAIL_REWIND:
      return "it hung up";
    case CURLE_PARTIAL_FILE:
      return "it hung up in the middle of its reply";
    default:
      return reason_[0] != '\0' ? reason_.data() : curl_easy_strerror(code);
  }
}

std::size_t HttpTransfer::Read(char* buffer, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  const std::size_t part = std::min(size * count, transfer.call_.body->size() - transfer.sent_);
  std::memcpy(buffer, transfer.call_.body->data() + transfer.sent_, part);
  transfer.sent_ += part;
  return part;
}

int HttpTransfer::Seek(void* /*self*/, curl_off_t /*offset*/, int /*origin*/) { return CURL_SEEKFUNC_FAIL; }

std::size_t HttpTransfer::Write(char* data, std::size_t size, std::size_t count, void* self) {
  auto& transfer = *static_cast<HttpTransfer*>(self);
  std::string& body = transfer.outcome_.body;
  const std::size_t bytes = size * count;
  transfer.too_large_ = bytes > kMaxReplyBytes - body.size();
  if (transfer.too_large_) return 0;  // ends the transfer
  try {
    body.append(data, bytes);
  } catch (const std::bad_alloc&) {
    return 0;
  }
  return bytes;
}

CURLcode HttpTransfer::SetUpContext(CURL* /*handle*/, void* context, void* self) {
  const auto& transfer = *static_cast<const HttpTransfer*>(self);
  return RequireCommonName(context, transfer.call_.host_id) ? CURLE_OK : CURLE_OUT_OF_MEMORY;
}

}  // namespace vexa::transport
