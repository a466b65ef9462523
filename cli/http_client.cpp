#include "cli/http_client.h"

#include <fmt/format.h>

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <iostream>
#include <utility>

#include "cli/printable.h"
#include "cli/transport_failure.h"

namespace vexa::cli {
namespace {

struct Received {
  std::string body;
  bool too_large = false;
};

std::size_t AppendToBody(char* data, std::size_t, std::size_t count, void* context) {
  auto* received = static_cast<Received*>(context);
  if (count > kMaxReplyBytes - received->body.size()) {
    received->too_large = true;
    return 0;  // ends the transfer
  }
  received->body.append(data, count);
  return count;
}

}  // namespace

Error ExposedError(const Endpoint& endpoint) {
  return Error(ErrorCode::kInvalid,
               fmt::format("Refused to send a password or token unencrypted to '{}'. Use https, or --insecure-http if "
                           "you accept that others can read it",
                           endpoint.url));
}

class HttpClient::Impl {
 public:
  explicit Impl(HttpClientOptions options) : options_(std::move(options)) {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    handle_ = curl_easy_init();
  }
  ~Impl() {
    curl_easy_cleanup(handle_);
    curl_global_cleanup();
  }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // `content_range`: not null for a PUT of a piece.
  Result<HttpReply> Send(const std::string& path, const std::string* body, Secrecy secrecy,
                         const std::string* content_range = nullptr) {
    if (!handle_) return Error(ErrorCode::kInternal, "Cannot start the HTTP library");
    const bool secret = secrecy == Secrecy::kSecret || !options_.token.empty();
    if (secret && options_.insecure_http == InsecureHttp::kRefuse && IsExposed(options_.endpoint)) {
      return ExposedError(options_.endpoint);
    }
    if (!options_.token.empty() && !IsValidToken(options_.token)) {
      return Error(ErrorCode::kInvalid, "The token contains invalid characters");
    }
    return Perform(path, body, content_range);
  }

  std::string WithoutToken(std::string text) const {
    if (options_.token.empty()) return text;
    for (std::size_t at = 0; (at = text.find(options_.token, at)) != std::string::npos;) {
      text.replace(at, options_.token.size(), "***");
      at += 3;
    }
    return text;
  }

  const HttpClientOptions& options() const { return options_; }

 private:
  Result<HttpReply> Perform(const std::string& path, const std::string* body, const std::string* content_range) {
    const bool over_unix_socket = !options_.endpoint.unix_socket.empty();
    const std::string url = (over_unix_socket ? "http://localhost" : options_.endpoint.url) + path;
    Received received;
    std::array<char, CURL_ERROR_SIZE> reason{};
    curl_slist* headers = MakeHeaders(body != nullptr, content_range);

    curl_easy_reset(handle_);
    Set(CURLOPT_URL, url.c_str());
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_FOLLOWLOCATION, 0L);
    Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    Set(CURLOPT_HTTP09_ALLOWED, 0L);
    Set(CURLOPT_SSL_VERIFYPEER, 1L);
    Set(CURLOPT_SSL_VERIFYHOST, 2L);
    Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_USERAGENT, "vexa");
    // Some replies take an hour. Keep-alive notices a server that loses its power meanwhile.
    Set(CURLOPT_TCP_KEEPALIVE, 1L);
    Set(CURLOPT_TIMEOUT_MS, static_cast<long>(options_.timeout.count()));
    Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(std::min<std::int64_t>(options_.timeout.count(), 10'000)));
    if (!options_.ca_file.empty()) Set(CURLOPT_CAINFO, options_.ca_file.c_str());
    if (over_unix_socket) Set(CURLOPT_UNIX_SOCKET_PATH, options_.endpoint.unix_socket.c_str());
    // A proxy could read plain http.
    if (!url.starts_with("https:")) Set(CURLOPT_PROXY, "");
    if (body != nullptr) {
      Set(CURLOPT_POST, 1L);
      Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body->size()));
      Set(CURLOPT_POSTFIELDS, body->data());
      if (content_range != nullptr) Set(CURLOPT_CUSTOMREQUEST, "PUT");
    }
    Set(CURLOPT_HTTPHEADER, headers);
    Set(CURLOPT_WRITEFUNCTION, AppendToBody);
    Set(CURLOPT_WRITEDATA, &received);
    Set(CURLOPT_ERRORBUFFER, reason.data());
    if (options_.trace == Trace::kOn) {
      std::cerr << (content_range ? "> PUT " : body ? "> POST " : "> GET ") << Printable(url) << '\n';
    }

    const CURLcode code = curl_easy_perform(handle_);
    curl_slist_free_all(headers);
    return Outcome(code, reason.data(), std::move(received));
  }

  Result<HttpReply> Outcome(CURLcode code, const char* reason, Received received) {
    if (received.too_large) {
      return Error(ErrorCode::kCorrupt, "The server's reply is larger than 16 MiB and was not read");
    }
    if (code != CURLE_OK) {
      long error_number = 0;
      long certificate_problem = 0;
      curl_easy_getinfo(handle_, CURLINFO_OS_ERRNO, &error_number);
      curl_easy_getinfo(handle_, CURLINFO_SSL_VERIFYRESULT, &certificate_problem);
      const std::string text = *reason != '\0' ? reason : curl_easy_strerror(code);
      return TransportError(options_, {.curl_code = code,
                                       .error_number = static_cast<int>(error_number),
                                       .certificate_problem = certificate_problem,
                                       .text = WithoutToken(text)});
    }
    long status = 0;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    if (options_.trace == Trace::kOn) {
      double seconds = 0;
      curl_easy_getinfo(handle_, CURLINFO_TOTAL_TIME, &seconds);
      std::cerr << "< HTTP " << status << ", " << received.body.size() << " bytes, "
                << static_cast<long>(seconds * 1000) << " ms\n";
    }
    return HttpReply{static_cast<int>(status), std::move(received.body)};
  }

  curl_slist* MakeHeaders(bool has_body, const std::string* content_range) const {
    curl_slist* headers = curl_slist_append(nullptr, "Accept: application/json");
    headers = curl_slist_append(headers, "Expect:");
    if (content_range != nullptr) {
      headers = curl_slist_append(headers, "Content-Type: application/octet-stream");
      headers = curl_slist_append(headers, ("Content-Range: " + *content_range).c_str());
    } else if (has_body) {
      headers = curl_slist_append(headers, "Content-Type: application/json");
    }
    if (!options_.token.empty()) {
      headers = curl_slist_append(headers, ("Authorization: Bearer " + options_.token).c_str());
    }
    return headers;
  }

  template <class Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(handle_, option, value);
  }

  HttpClientOptions options_;
  CURL* handle_ = nullptr;
};

HttpClient::HttpClient(HttpClientOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}
HttpClient::~HttpClient() = default;

Result<HttpReply> HttpClient::Get(const std::string& path) { return impl_->Send(path, nullptr, Secrecy::kPlain); }

Result<HttpReply> HttpClient::PostJson(const std::string& path, const std::string& body, Secrecy secrecy) {
  return impl_->Send(path, &body, secrecy);
}

Result<HttpReply> HttpClient::PutPiece(const std::string& path, const std::string& content_range,
                                       const std::string& bytes) {
  return impl_->Send(path, &bytes, Secrecy::kPlain, &content_range);
}

std::string HttpClient::WithoutToken(std::string text) const { return impl_->WithoutToken(std::move(text)); }
const Endpoint& HttpClient::endpoint() const { return impl_->options().endpoint; }

}  // namespace vexa::cli
