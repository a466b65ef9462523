#include <arpa/inet.h>
#include <curl/curl.h>
#include <fmt/format.h>

#include <memory>

#include "cli/http_client.h"

namespace vexa::cli {
namespace {

using UrlHandle = std::unique_ptr<CURLU, decltype(&curl_url_cleanup)>;

std::string UrlPart(const UrlHandle& url, CURLUPart part) {
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
  in_addr ipv4{};
  if (::inet_pton(AF_INET, host.c_str(), &ipv4) == 1) return ntohl(ipv4.s_addr) >> 24 == 127;
  if (host.size() > 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  in6_addr ipv6{};
  return ::inet_pton(AF_INET6, host.c_str(), &ipv6) == 1 && IN6_IS_ADDR_LOOPBACK(&ipv6);
}

}  // namespace

Result<Endpoint> ParseServerUrl(const std::string& text) {
  // Errors do not contain the URL, because it may contain a password.
  const auto refused = [](std::string why) {
    return Error(ErrorCode::kInvalid, "The server's URL cannot be used", std::move(why));
  };
  for (const char c : text) {
    if (c <= ' ' || c == '\x7f') return refused("it contains a blank, a control character or a byte beyond ASCII");
  }
  const UrlHandle url = Parse(text);
  if (!url) return refused("it does not look like https://host:port");
  const std::string scheme = UrlPart(url, CURLUPART_SCHEME);
  if (scheme != "http" && scheme != "https") return refused("it starts with neither http:// nor https://");
  if (!UrlPart(url, CURLUPART_USER).empty() || !UrlPart(url, CURLUPART_PASSWORD).empty()) {
    return refused("it contains a user or password; use 'vexa login' instead");
  }
  if (text.find_first_of("?#") != std::string::npos) return refused("it has a query or a fragment");

  std::string host = UrlPart(url, CURLUPART_HOST);
  if (host.empty()) return refused("it does not name a host");
  for (char& c : host) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  const std::string port = UrlPart(url, CURLUPART_PORT);
  const bool is_default_port = port.empty() || port == (scheme == "http" ? "80" : "443");
  std::string path = UrlPart(url, CURLUPART_PATH);
  path.erase(path.find_last_not_of('/') + 1);
  const std::string authority = is_default_port ? host : fmt::format("{}:{}", host, port);
  return Endpoint{fmt::format("{}://{}{}", scheme, authority, path), ""};
}

bool IsExposed(const Endpoint& endpoint) {
  if (!endpoint.unix_socket.empty()) return false;
  const UrlHandle url = Parse(endpoint.url);
  if (!url) return true;
  return UrlPart(url, CURLUPART_SCHEME) != "https" && !IsLoopbackHost(UrlPart(url, CURLUPART_HOST));
}

bool IsValidToken(std::string_view token) {
  if (token.empty() || token.size() > 4096) return false;
  for (const char c : token) {
    if (c < '!' || c > '~') return false;
  }
  return true;
}

}  // namespace vexa::cli
