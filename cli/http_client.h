// The HTTP client: sends a request to a server and returns the reply, with limits on time and size.
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

// Where a server listens: a Unix socket when `unix_socket` is set, otherwise `url`.
struct Endpoint {
  std::string url;  // "https://nas:8443", possibly with a path, without a trailing slash
  std::string unix_socket;

  bool operator==(const Endpoint&) const = default;
  // For messages.
  std::string Name() const { return unix_socket.empty() ? url : unix_socket; }
};

// Accepts http and https URLs without user, query and fragment, and normalises them: a lower-case host, no default
// port, no trailing slash. kInvalid for everything else.
Result<Endpoint> ParseServerUrl(const std::string& url);

// Whether others in the network can read what is sent to `endpoint`: plain http to another host.
bool IsExposed(const Endpoint& endpoint);
// kInvalid: refuses to send a secret to an exposed endpoint.
Error ExposedError(const Endpoint& endpoint);

// Whether `token` is valid: 1 to 4096 visible ASCII characters. Anything else could change the header that contains
// it.
bool IsValidToken(std::string_view token);

enum class InsecureHttp { kRefuse, kAllow };
enum class Secrecy { kPlain, kSecret };
enum class Trace { kOff, kOn };

struct HttpClientOptions {
  Endpoint endpoint;
  std::string token;                          // sent as bearer token when not empty
  std::string ca_file;                        // trusted authorities instead of the system's
  std::chrono::milliseconds timeout{60'000};  // for a whole request
  InsecureHttp insecure_http = InsecureHttp::kRefuse;
  Trace trace = Trace::kOff;  // one line per request and reply on standard error, without headers and bodies
};

// TLS certificates are verified, redirects are not followed, and no proxy is used for plain http.
// Errors: kInvalid (refused to send a secret over an exposed connection), kUnavailable (no complete reply), kCorrupt
// (the reply is larger than kMaxReplyBytes). Error messages never contain the token or the body.
// Threads: one at a time.
class HttpClient {
 public:
  explicit HttpClient(HttpClientOptions options);
  ~HttpClient();

  Result<HttpReply> Get(const std::string& path);
  // `secrecy`: whether the body contains a secret.
  Result<HttpReply> PostJson(const std::string& path, const std::string& body, Secrecy secrecy = Secrecy::kPlain);

  // Sends bytes with PUT and the header Content-Range.
  Result<HttpReply> PutPiece(const std::string& path, const std::string& content_range, const std::string& bytes);

  // `text`, which a server returned, with the token replaced by "***".
  std::string WithoutToken(std::string text) const;

  const Endpoint& endpoint() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace vexa::cli
