#include <arpa/inet.h>
#include <curl/curl.h>

#include <memory>

#include "cli/http_client.h"

namespace vexa::cli {
namespace {

using UrlHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::string Part(const UrlHandle& url, CURLUPart part) {
  char* text = nullptr;
  if (curl_url_get(url.get(), part, &text, 0) != CURLUE_OK) return "";
  const std::string result = text;
  curl_free(text);
  return result;
}

UrlHandle Parse(const std::string& text) {
  UrlHandle url(curl_url(), curl_url_cleanup);
  if (url && curl_url_set(url.get(), CURLUPART_URL, text.c_str(), 0) != CURLUE_OK) url.reset();
  return url;
}

bool IsLoopbackHost(std::string host) {
  if (host == "localhost") return true;  // libcurl never resolves it through a name server
  in_addr four{};
  if (::inet_pton(AF_INET, host.c_str(), &four) == 1) return ntohl(four.s_addr) >> 24 == 127;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  in6_addr six{};
  return ::inet_pton(AF_INET6, host.c_str(), &six) == 1 && IN6_IS_ADDR_LOOPBACK(&six);
}

}  // namespace

Result<Endpoint> ParseServerUrl(const std::string& text) {
  // Errors do not repeat the text: it may contain a password.
  const auto refused = [](std::string why) {
    return Error(ErrorCode::kInvalid, "The server's URL cannot be used", std::move(why));
  };
  for (const char c : text) {
    if (c <= ' ' || c == '\x7f') return refused("it contains a blank, a control character or a byte beyond ASCII");
  }
  const UrlHandle url = Parse(text);
  if (!url) return refused("it does not look like https://host:port");
  const std::string scheme = Part(url, CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") return refused("it starts with neither http:// nor https://");
  if (!Part(url, CURLUPART_USER).empty() || !Part(url, CURLUPART_PASSWORD).empty()) {
    return refused("user and password do not belong into it; use 'vexa login'");
  }
  if (text.find_first_of("?#") != std::string::npos) return refused("it has a query or a fragment");

  std::string host = Part(url, CURLUPART_HOST);
  if (host.empty()) return refused("it names no host");
  for (char& c : host) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const std::string port = Part(url, CURLUPART_PORT);
  const bool own_port = port.empty() || port == (scheme == "http" ? "80" : "443");
  std::string path = Part(url, CURLUPART_PATH);
  path.erase(path.find_last_not_of('/') + 1);
  return Endpoint{scheme + "://" + host + (own_port ? "" : ":" + port) + path, ""};
}

bool IsExposed(const Endpoint& endpoint) {
  if (!endpoint.unix_socket.empty()) return false;
  const UrlHandle url = Parse(endpoint.url);
  if (!url) return true;
  return Part(url, CURLUPART_SCHEME) != "https" && !IsLoopbackHost(Part(url, CURLUPART_HOST));
}

bool IsValidToken(std::string_view token) {
  if (token.empty() || token.size() > 4096) return false;
  for (const char c : token) {
    if (c < '!' || c > '~') return false;
  }
  return true;
}

}  // namespace vexa::cli
