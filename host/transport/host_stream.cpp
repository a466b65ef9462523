#include "host/transport/host_stream.h"

#include <curl/curl.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

#include "host/transport/curl_setup.h"

namespace vexa::transport {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kMaxHeaderBytes = std::size_t{16} * 1024;
constexpr std::size_t kMaxBodyBytes = std::size_t{64} * 1024;
constexpr long kConnectTimeoutMs = 5'000;

class CurlStream final : public HostStream {
 public:
  explicit CurlStream(const StreamRequest& request) : tls_(request.tls), host_id_(request.host_id) {}
  ~CurlStream() override {
    // The host takes nothing, so it would not notice the end behind what was sent.
    const linger without_rest{1, 0};
    if (is_blocked_) (void)::setsockopt(fd(), SOL_SOCKET, SO_LINGER, &without_rest, sizeof without_rest);
    curl_easy_cleanup(handle_);
    curl_slist_free_all(connect_to_);
  }
  CurlStream(const CurlStream&) = delete;
  CurlStream& operator=(const CurlStream&) = delete;

  // Why there is no connection; empty when there is one.
  std::string Connect(const StreamRequest& request) {
    handle_ = curl_easy_init();
    connect_to_ = curl_slist_append(nullptr, ("::" + request.address).c_str());
    if (handle_ == nullptr || connect_to_ == nullptr) return "no memory for a connection";
    const std::string port = request.address.substr(request.address.rfind(':'));
    curl_easy_setopt(handle_, CURLOPT_URL, ((tls_ ? "https://" : "http://") + host_id_ + port).c_str());
    curl_easy_setopt(handle_, CURLOPT_CONNECT_TO, connect_to_);
    curl_easy_setopt(handle_, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(handle_, CURLOPT_PROXY, "");
    curl_easy_setopt(handle_, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(handle_, CURLOPT_ERRORBUFFER, reason_.data());
    curl_easy_setopt(handle_, CURLOPT_CONNECTTIMEOUT_MS, kConnectTimeoutMs);
    curl_easy_setopt(handle_, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle_, CURLOPT_TCP_KEEPIDLE, 30L);
    curl_easy_setopt(handle_, CURLOPT_TCP_KEEPINTVL, 10L);
    if (tls_) {
      SetTls(handle_, *tls_);
      curl_easy_setopt(handle_, CURLOPT_SSL_CTX_FUNCTION, &CurlStream::SetUpContext);
      curl_easy_setopt(handle_, CURLOPT_SSL_CTX_DATA, this);
    }
    const CURLcode code = curl_easy_perform(handle_);
    if (code != CURLE_OK) return reason_[0] != '\0' ? reason_.data() : curl_easy_strerror(code);
    if (curl_easy_getinfo(handle_, CURLINFO_ACTIVESOCKET, &socket_) != CURLE_OK || socket_ == CURL_SOCKET_BAD) {
      return "it hung up";
    }
    return {};
  }

  int fd() const override { return static_cast<int>(socket_); }

  Outcome Read(char* buffer, std::size_t size) override {
    if (!received_.empty()) {
      const std::size_t count = received_.copy(buffer, size);
      received_.erase(0, count);
      return {State::kDone, count};
    }
    std::size_t got = 0;
    const CURLcode code = curl_easy_recv(handle_, buffer, size, &got);
    if (code == CURLE_AGAIN) return {State::kBlocked};
    if (code != CURLE_OK) return {State::kFailed};
    return got == 0 ? Outcome{State::kEnd} : Outcome{State::kDone, got};
  }

  Outcome Write(std::string_view bytes) override {
    std::size_t sent = 0;
    const CURLcode code = curl_easy_send(handle_, bytes.data(), bytes.size(), &sent);
    is_blocked_ = code == CURLE_AGAIN;
    if (is_blocked_) return {State::kBlocked};
    return code == CURLE_OK ? Outcome{State::kDone, sent} : Outcome{State::kFailed};
  }

  bool SendAll(std::string_view bytes, Clock::time_point deadline) {
    while (!bytes.empty()) {
      const Outcome sent = Write(bytes);
      if (sent.state == State::kFailed || (sent.state == State::kBlocked && !Await(POLLOUT, deadline))) return false;
      bytes.remove_prefix(sent.bytes);
    }
    return true;
  }

  // Appends at least one byte. False: the connection has ended, or it is too late.
  bool ReceiveMore(std::string& text, Clock::time_point deadline) {
    std::array<char, 4096> part;
    for (;;) {
      const Outcome got = Read(part.data(), part.size());
      if (got.state == State::kDone) {
        text.append(part.data(), got.bytes);
        return true;
      }
      if (got.state != State::kBlocked || !Await(POLLIN, deadline)) return false;
    }
  }

  void PutBack(std::string bytes) { received_ = std::move(bytes); }

 private:
  static CURLcode SetUpContext(CURL* /*handle*/, void* context, void* self) {
    return RequireCommonName(context, static_cast<const CurlStream*>(self)->host_id_) ? CURLE_OK : CURLE_OUT_OF_MEMORY;
  }

  bool Await(short events, Clock::time_point deadline) const {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd socket{fd(), events, 0};
    return left.count() > 0 && ::poll(&socket, 1, static_cast<int>(left.count())) == 1;
  }

  const std::shared_ptr<const TlsMaterial> tls_;  // libcurl does not copy it
  const std::string host_id_;
  CURL* handle_ = nullptr;
  curl_slist* connect_to_ = nullptr;
  curl_socket_t socket_ = CURL_SOCKET_BAD;
  bool is_blocked_ = false;  // the last bytes were not taken
  std::string received_;     // read too far
  std::array<char, CURL_ERROR_SIZE> reason_{};
};

// The number in "Content-Length: 123"; 0 without the field.
std::size_t ContentLength(std::string_view header) {
  constexpr std::string_view kField = "\r\nContent-Length: ";
  const std::size_t at = header.find(kField);
  std::size_t length = 0;
  if (at != std::string_view::npos) {
    (void)std::from_chars(header.data() + at + kField.size(), header.data() + header.size(), length);
  }
  return std::min(length, kMaxBodyBytes);
}

Error Unreachable(const std::string& reason) { return Error(ErrorCode::kUnavailable, reason); }

}  // namespace

Result<StreamReply> OpenHostStream(const StreamRequest& request) {
  if (!IsNumericAddress(request.address)) return Unreachable("its address is not a numeric address and a port");
  const Clock::time_point deadline = Clock::now() + request.timeout;
  auto stream = std::make_unique<CurlStream>(request);
  if (const std::string why = stream->Connect(request); !why.empty()) return Unreachable(why);
  std::string header = "GET " + request.path + " HTTP/1.1\r\nHost: " + request.host_id +
                       "\r\nConnection: Upgrade\r\nUpgrade: vexa-tunnel\r\n";
  for (const std::string& field : request.fields) header += field + "\r\n";
  if (!stream->SendAll(header + "\r\n", deadline)) return Unreachable("it hung up");
  std::string reply;
  std::size_t end = std::string::npos;
  while ((end = reply.find("\r\n\r\n")) == std::string::npos) {
    if (reply.size() > kMaxHeaderBytes || !stream->ReceiveMore(reply, deadline)) {
      return Unreachable("no reply in time, or an unusable one");
    }
  }
  const std::string_view reply_header = std::string_view(reply).substr(0, end + 4);
  if (reply_header.starts_with("HTTP/1.1 101 ")) {
    stream->PutBack(reply.substr(end + 4));
    return StreamReply{std::move(stream), ""};
  }
  const std::size_t length = ContentLength(reply_header);
  while (reply.size() < end + 4 + length) {
    if (!stream->ReceiveMore(reply, deadline)) return Unreachable("it hung up in the middle of its reply");
  }
  return StreamReply{nullptr, reply.substr(end + 4, length)};
}

}  // namespace vexa::transport
