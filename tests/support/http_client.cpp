#include "tests/support/http_client.h"

#include <curl/curl.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <string_view>
#include <utility>

namespace vexa::test {
namespace {

std::atomic<ReplyCheck> reply_check = nullptr;

std::size_t AppendBody(char* data, std::size_t, std::size_t count, void* reply) {
  static_cast<HttpReply*>(reply)->body.append(data, count);
  return count;
}

std::size_t AppendHeader(char* data, std::size_t, std::size_t count, void* reply) {
  std::string_view line(data, count);
  auto& headers = static_cast<HttpReply*>(reply)->headers;
  if (line.starts_with("HTTP/")) headers.clear();  // "100 Continue" comes with a header of its own
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return count;
  std::string name(line.substr(0, colon));
  std::transform(name.begin(), name.end(), name.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  line.remove_prefix(colon + 1);
  const std::size_t first = line.find_first_not_of(" \t");
  const std::size_t last = line.find_last_not_of(" \t\r\n");
  headers[name] = last == std::string_view::npos || first > last ? "" : line.substr(first, last - first + 1);
  return count;
}

}  // namespace

class HttpClient::Impl {
 public:
  explicit Impl(HttpTarget target) : target_(std::move(target)), handle_(curl_easy_init()) {}
  ~Impl() { curl_easy_cleanup(handle_); }
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  HttpReply Send(const std::string& method, const std::string& path, const std::vector<std::string>& headers,
                 const std::string& body) {
    HttpReply reply;
    curl_slist* lines = nullptr;
    for (const auto& [name, value] : headers_) lines = curl_slist_append(lines, (name + ": " + value).c_str());
    for (const auto& line : headers) lines = curl_slist_append(lines, line.c_str());
    lines = curl_slist_append(lines, "Expect:");

    curl_easy_reset(handle_);  // keeps the connection
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_PROXY, "");
    Set(CURLOPT_URL, (target_.url + path).c_str());
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    if (!target_.unix_socket.empty()) Set(CURLOPT_UNIX_SOCKET_PATH, target_.unix_socket.c_str());
    if (!target_.ca_file.empty()) Set(CURLOPT_CAINFO, target_.ca_file.c_str());
    if (!target_.certificate_file.empty()) Set(CURLOPT_SSLCERT, target_.certificate_file.c_str());
    if (!target_.key_file.empty()) Set(CURLOPT_SSLKEY, target_.key_file.c_str());
    curl_slist* addresses = nullptr;
    if (!target_.connect_to.empty()) addresses = curl_slist_append(addresses, ("::" + target_.connect_to).c_str());
    Set(CURLOPT_CONNECT_TO, addresses);
    if (method == "GET") {
      Set(CURLOPT_HTTPGET, 1L);
    } else if (method == "HEAD") {
      Set(CURLOPT_NOBODY, 1L);
    } else {
      Set(CURLOPT_CUSTOMREQUEST, method.c_str());
      Set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
      Set(CURLOPT_POSTFIELDS, body.data());
    }
    Set(CURLOPT_HTTPHEADER, lines);
    Set(CURLOPT_TIMEOUT_MS, timeout_ms_);
    Set(CURLOPT_WRITEFUNCTION, AppendBody);
    Set(CURLOPT_WRITEDATA, &reply);
    Set(CURLOPT_HEADERFUNCTION, AppendHeader);
    Set(CURLOPT_HEADERDATA, &reply);

    const CURLcode code = curl_easy_perform(handle_);
    curl_slist_free_all(lines);
    curl_slist_free_all(addresses);
    long status = 0;
    curl_easy_getinfo(handle_, CURLINFO_RESPONSE_CODE, &status);
    reply.status = static_cast<int>(status);
    if (code != CURLE_OK) reply.transport_error = curl_easy_strerror(code);
    return reply;
  }

  std::map<std::string, std::string> headers_;
  long timeout_ms_ = 30'000;

 private:
  template <class Value>
  void Set(CURLoption option, Value value) {
    curl_easy_setopt(handle_, option, value);
  }

  HttpTarget target_;
  CURL* handle_;
};

HttpClient::HttpClient(HttpTarget target) : impl_(std::make_unique<Impl>(std::move(target))) {}
HttpClient::~HttpClient() = default;
HttpClient::HttpClient(HttpClient&&) noexcept = default;

void HttpClient::SetHeader(const std::string& name, const std::string& value) { impl_->headers_[name] = value; }
void HttpClient::SetTimeout(std::chrono::milliseconds timeout) { impl_->timeout_ms_ = timeout.count(); }

HttpReply HttpClient::Get(const std::string& path) { return Send("GET", path, {}, ""); }

HttpReply HttpClient::PostJson(const std::string& path, const std::string& body) {
  return Send("POST", path, {"Content-Type: application/json"}, body);
}

HttpReply HttpClient::Send(const std::string& method, const std::string& path, const std::vector<std::string>& headers,
                           const std::string& body) {
  HttpReply reply = impl_->Send(method, path, headers, body);
  const ReplyCheck check = reply_check;
  if (check && reply.arrived()) check(path, reply);
  return reply;
}

void SetReplyCheck(ReplyCheck check) { reply_check = check; }

}  // namespace vexa::test
