#include "cli/console_client.h"

#include <curl/curl.h>
#include <fmt/format.h>
#include <poll.h>

#include <array>
#include <utility>

#include "cli/printable.h"
#include "cli/reply.h"
#include "host/base/json_parse.h"

namespace vexa::cli {
namespace {

constexpr std::size_t kMaxResponseBytes = std::size_t{64} * 1024;
constexpr int kResponseTimeoutMs = 30'000;

// The host and port in a URL, and the path behind them.
std::pair<std::string, std::string> SplitUrl(const std::string& url) {
  const std::size_t start = url.find("://") + 3;
  const std::size_t slash = url.find('/', start);
  if (slash == std::string::npos) return {url.substr(start), ""};
  return {url.substr(start, slash - start), url.substr(slash)};
}

// "error.reason" of a refusal, or its message.
std::string ReasonIn(const std::string& response) {
  const std::size_t body = response.find("\r\n\r\n");
  const auto parsed = body == std::string::npos ? Result<Json::Value>(Error(ErrorCode::kInvalid, ""))
                                                : ParseJson(std::string_view(response).substr(body + 4));
  if (!parsed) return "the server does not offer consoles";
  const Json::Value& error = Member(*parsed, "error");
  const std::string reason = Text(Member(error, "reason"));
  return Printable(reason.empty() ? Text(Member(error, "message")) : reason);
}

}  // namespace

class ConsoleClient::Impl {
 public:
  Impl() : handle_(curl_easy_init()) {}
  ~Impl() { curl_easy_cleanup(handle_); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  Status Open(const HttpClientOptions& options, const std::string& path) {
    if (options.insecure_http == InsecureHttp::kRefuse && IsExposed(options.endpoint)) {
      return ExposedError(options.endpoint);
    }
    const bool over_unix_socket = !options.endpoint.unix_socket.empty();
    const std::string url = over_unix_socket ? "http://localhost" : options.endpoint.url;
    std::array<char, CURL_ERROR_SIZE> reason{};
    Set(CURLOPT_URL, url.c_str());
    Set(CURLOPT_CONNECT_ONLY, 1L);
    Set(CURLOPT_SSL_VERIFYPEER, 1L);
    Set(CURLOPT_SSL_VERIFYHOST, 2L);
    Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    Set(CURLOPT_SSL_ENABLE_ALPN, 0L);
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_TCP_KEEPALIVE, 1L);
    Set(CURLOPT_CONNECTTIMEOUT_MS, 10'000L);
    if (!options.ca_file.empty()) Set(CURLOPT_CAINFO, options.ca_file.c_str());
    if (over_unix_socket) Set(CURLOPT_UNIX_SOCKET_PATH, options.endpoint.unix_socket.c_str());
    if (!url.starts_with("https:")) Set(CURLOPT_PROXY, "");
    Set(CURLOPT_ERRORBUFFER, reason.data());
    const CURLcode code = curl_easy_perform(handle_);
    if (code != CURLE_OK || curl_easy_getinfo(handle_, CURLINFO_ACTIVESOCKET, &socket_) != CURLE_OK) {
      const std::string why = reason[0] != '\0' ? reason.data() : curl_easy_strerror(code);
      return Error(ErrorCode::kUnavailable, fmt::format("No reply from {}", options.endpoint.Name()), why);
    }
    const auto [host, prefix] = SplitUrl(url);
    const std::string request = fmt::format(
        "GET {}{} HTTP/1.1\r\nHost: {}\r\nConnection: Upgrade\r\nUpgrade: vexa-tunnel\r\nUser-Agent: vexa\r\n\r\n",
        prefix, path, host);
    std::string response;
    if (!WriteAll(request) || !ReceiveResponse(response)) {
      return Error(ErrorCode::kUnavailable, fmt::format("No reply from {}", options.endpoint.Name()));
    }
    const std::size_t end = response.find("\r\n\r\n") + 4;
    if (response.starts_with("HTTP/1.1 101 ")) {
      received_ = response.substr(end);
      return {};
    }
    return Error(ErrorCode::kUnavailable, "The console cannot be opened", ReasonIn(response));
  }

  int fd() const { return static_cast<int>(socket_); }

  Outcome Read(char* buffer, std::size_t size) {
    if (!received_.empty()) {
      const std::size_t count = received_.copy(buffer, size);
      received_.erase(0, count);
      return {State::kDone, count};
    }
    std::size_t got = 0;
    const CURLcode code = curl_easy_recv(handle_, buffer, size, &got);
    if (code == CURLE_AGAIN) return {State::kBlocked};
    return code == CURLE_OK && got > 0 ? Outcome{State::kDone, got} : Outcome{State::kEnded};
  }

  bool WriteAll(std::string_view bytes) {
    while (!bytes.empty()) {
      std::size_t sent = 0;
      const CURLcode code = curl_easy_send(handle_, bytes.data(), bytes.size(), &sent);
      if (code == CURLE_AGAIN) {
        pollfd writable{fd(), POLLOUT, 0};
        (void)::poll(&writable, 1, -1);
        continue;
      }
      if (code != CURLE_OK) return false;
      bytes.remove_prefix(sent);
    }
    return true;
  }

 private:
  template <class Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(handle_, option, value);
  }

  // The header and, of a refusal, all that follows until the server pauses.
  bool ReceiveResponse(std::string& response) {
    std::array<char, 4096> part;
    for (;;) {
      const bool has_header = response.find("\r\n\r\n") != std::string::npos;
      const Outcome got = Read(part.data(), part.size());
      if (got.state == State::kDone) {
        response.append(part.data(), got.bytes);
      } else if (got.state == State::kEnded || has_header || response.size() > kMaxResponseBytes) {
        return has_header;
      } else {
        pollfd readable{fd(), POLLIN, 0};
        if (::poll(&readable, 1, kResponseTimeoutMs) != 1) return false;
      }
    }
  }

  CURL* const handle_;
  curl_socket_t socket_ = CURL_SOCKET_BAD;
  std::string received_;
};

ConsoleClient::ConsoleClient(std::unique_ptr<Impl> impl) : impl_(std::move(impl)) {}
ConsoleClient::~ConsoleClient() = default;

Result<std::unique_ptr<ConsoleClient>> ConsoleClient::Open(const HttpClientOptions& options, const std::string& path) {
  auto impl = std::make_unique<Impl>();
  if (const Status opened = impl->Open(options, path); !opened) return opened.error();
  return std::unique_ptr<ConsoleClient>(new ConsoleClient(std::move(impl)));
}

int ConsoleClient::fd() const { return impl_->fd(); }
ConsoleClient::Outcome ConsoleClient::Read(char* buffer, std::size_t size) { return impl_->Read(buffer, size); }
bool ConsoleClient::WriteAll(std::string_view bytes) { return impl_->WriteAll(bytes); }

}  // namespace vexa::cli
