#include "host/base/uuid.h"

#include <openssl/evp.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <boost/uuid/uuid.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cerrno>

namespace vexa {
namespace {

// Sets the bits of the version and the variant.
std::string ToString(boost::uuids::uuid id, unsigned version) {
  id.data[6] = static_cast<unsigned char>((id.data[6] & 0x0F) | (version << 4));
  id.data[8] = static_cast<unsigned char>((id.data[8] & 0x3F) | 0x80);  // the variant of RFC 4122
  return boost::uuids::to_string(id);
}

}  // namespace

// Uses getrandom(2), because Boost's generator throws when the system provides no random numbers.
Result<std::string> RandomUuid() {
  boost::uuids::uuid id{};
  if (::getrandom(id.data, id.size(), 0) != static_cast<ssize_t>(id.size())) {
    return SystemError(ErrorCode::kInternal, "Cannot get random numbers for an id", errno);
  }
  return ToString(id, 4);
}

std::string NameBasedUuid(std::string_view name_space, std::string_view name) {
  const std::string input = std::string(name_space) + std::string(name);
  std::array<unsigned char, EVP_MAX_MD_SIZE> hash{};
  unsigned int length = 0;
  EVP_Digest(input.data(), input.size(), hash.data(), &length, EVP_sha1(), nullptr);
  boost::uuids::uuid id{};
  std::copy_n(hash.begin(), id.size(), id.begin());
  return ToString(id, 5);
}

bool HasUuidForm(std::string_view text) {
  constexpr std::string_view kForm = "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx";
  const auto matches = [](char c, char form) {
    if (form == '-') return c == '-';
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
  };
  return std::ranges::equal(text, kForm, matches);
}

std::string NormalizeUuid(std::string_view text) {
  if (!HasUuidForm(text) || text.find_first_not_of("0-") == std::string_view::npos) return "";
  std::string normal(text);
  std::ranges::transform(normal, normal.begin(),
                         [](char c) { return c >= 'A' && c <= 'F' ? static_cast<char>(c | 0x20) : c; });
  return normal;
}

}  // namespace vexa
