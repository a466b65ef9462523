// SHA-256 digests of data that arrives in parts.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace vexa {

// Whether `text` is a digest as this class returns it: 64 hexadecimal digits in lower case.
bool IsSha256(std::string_view text);

class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void Add(std::string_view bytes);
  // The digest of everything that was added. Call it once. Not set: the digest could not be computed, for instance for
  // lack of memory.
  std::optional<std::string> Digest();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace vexa
