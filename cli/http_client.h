// The client's way to a server: one request, one reply, within limits.
#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "cli/reply.h"
#include "host/base/result.h"

namespace vexa::cli {

inline constexpr std::size_t kMaxReplyBytes = std::size_t{16} << 20;

// Where a server listens: a Unix socket when `unix_socket` is set, else `url`.
struct Endpoint {
  std::string url;  // "https://nas:8443", maybe with a path, without a trailing slash
  std::string unix_socket;

  bool operator==(const Endpoint&) const = default;
  // For people.
  std::string Name() const { return unix_socket.empty() ? url : unix_socket; }
};

// Accepts http and https URLs without user, query and fragment, and writes them in one way: a lower-case host, no port
// that is the scheme's own, no trailing slash. kInvalid for everything else.
Result<Endpoint> ParseServerUrl(const std::string& url);

// Whether what is sent to `endpoint` can be read by others on the way: plain http to anything but this host.
bool IsExposed(const Endpoint& endpoint);

// Whether `token` can be one: 1 to 4096 visible ASCII characters. Anything else could change the request it is put in.
bool IsValidToken(std::string_view token);

enum class InsecureHttp { kRefuse, kAllow };
enum class Secrecy { kPlain, kSecret };
enum class Trace { kOff, kOn };

struct HttpClientOptions {
  Endpoint endpoint;
  std::string token;                          // sent as bearer token when not empty
  std::string ca_file;                        // trusted authorities instead of the system's
  std::chrono::milliseconds timeout{60'000};  // of a whole request
  InsecureHttp insecure_http = InsecureHttp::kRefuse;
  Trace trace = Trace::kOff;  // one line per request and reply on standard error, without headers and bodies
};

// TLS certificates are verified, redirects are not followed, and no proxy is used for plain http.
// Errors: kInvalid (refused to send a secret over an exposed connection), kUnavailable (no whole reply), kCorrupt (the
// reply is larger than kMaxReplyBytes). No error text contains the token or the body.
// Threads: one at a time.
class HttpClient {
 public:
  explicit HttpClient(HttpClientOptions options);
  ~HttpClient();

  Result<HttpReply> Get(const std::string& path);
  // `secrecy`: whether the body holds a secret.
  Result<HttpReply> PostJson(const std::string& path, const std::string& body, Secrecy secrecy = Secrecy::kPlain);

  // `text` with the token taken out, for texts that a server sent back.
  std::string WithoutToken(std::string text) const;

  const Endpoint& endpoint() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::cli
