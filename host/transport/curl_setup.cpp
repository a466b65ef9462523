#include "host/transport/curl_setup.h"

#include <arpa/inet.h>

#include <charconv>
#include <cstdint>

namespace vexa::transport {
namespace {

curl_blob BlobOf(const std::string& text) {
  return curl_blob{const_cast<char*>(text.data()), text.size(), CURL_BLOB_NOCOPY};
}

}  // namespace

bool IsNumericAddress(const std::string& text) {
  const std::size_t colon = text.rfind(':');
  if (colon == std::string::npos) return false;
  std::string host = text.substr(0, colon);
  const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
  if (bracketed) host = host.substr(1, host.size() - 2);
  unsigned char buffer[sizeof(in6_addr)];
  if (host.find('\0') != std::string::npos) return false;
  if (::inet_pton(bracketed ? AF_INET6 : AF_INET, host.c_str(), buffer) != 1) return false;
  std::uint16_t port = 0;
  const char* const end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data() + colon + 1, end, port);
  return error == std::errc() && stop == end && port != 0;
}

void SetTls(CURL* handle, const TlsMaterial& tls) {
  const auto set = [handle](CURLoption option, auto value) { curl_easy_setopt(handle, option, value); };
  curl_blob certificate = BlobOf(tls.certificate);
  curl_blob key = BlobOf(tls.key);
  curl_blob authority = BlobOf(tls.authority);
  set(CURLOPT_SSLCERT_BLOB, &certificate);
  set(CURLOPT_SSLKEY_BLOB, &key);
  set(CURLOPT_CAINFO_BLOB, &authority);
  set(CURLOPT_CAPATH, static_cast<const char*>(nullptr));  // otherwise the system's authorities would also be trusted
  set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_3));
  set(CURLOPT_SSL_VERIFYPEER, 1L);
  set(CURLOPT_SSL_VERIFYHOST, 2L);
  set(CURLOPT_SSL_ENABLE_ALPN, 0L);
  set(CURLOPT_SSL_SESSIONID_CACHE, 0L);
}

}  // namespace vexa::transport
