// Which request headers the server accepts. Stricter than the parser, whose leniency would let this server and a proxy
// in front of it disagree about where a request ends.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace vexa::http {

// Longer targets are answered with 414.
inline constexpr std::size_t kMaxTargetBytes = 8 * 1024;
// More fields than this are answered with 431.
inline constexpr std::size_t kMaxFields = 100;

// Checks a whole header, from the request line to the empty line. Returns 0 when it is acceptable, otherwise the status
// of the refusal:
//   400  the syntax; control characters; a continued field line; a target that is neither an absolute path nor an
//        http or https URI of the host in Host; framing that could be read in two ways; Host missing or repeated; a
//        repeated field that the server uses
//   414, 431  too long, too many
//   501  a method that HTTP/1.1 does not define
//   505  an HTTP version other than 1.0 and 1.1
int CheckRequestHeader(std::string_view header);

// The target as a path with its query: without the scheme and the authority of a target in absolute form, which clients
// send to proxies (RFC 9112, section 3.2.2). `target` has been accepted.
std::string OriginForm(std::string_view target);

// RFC 9110's "token": the syntax of field names and methods.
bool IsToken(std::string_view text);
// No control character except the tab, so that the value cannot end its line.
bool IsFieldValue(std::string_view text);
// ASCII only, as in field names.
bool EqualsIgnoringCase(std::string_view left, std::string_view right);

}  // namespace vexa::http
