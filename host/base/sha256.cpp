#include "host/base/sha256.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <cstdint>

namespace vexa {

// `context` is null after a failure.
struct Sha256::Context {
  ~Context() { EVP_MD_CTX_free(context); }
  void Fail() {
    EVP_MD_CTX_free(context);
    context = nullptr;
  }
  EVP_MD_CTX* context = EVP_MD_CTX_new();
};

bool IsSha256(std::string_view text) {
  return text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

Sha256::Sha256() : context_(std::make_unique<Context>()) {
  if (context_->context != nullptr && EVP_DigestInit_ex2(context_->context, EVP_sha256(), nullptr) != 1) {
    context_->Fail();
  }
}

Sha256::~Sha256() = default;

void Sha256::Add(std::string_view bytes) {
  if (context_->context == nullptr) return;
  if (EVP_DigestUpdate(context_->context, bytes.data(), bytes.size()) != 1) context_->Fail();
}

std::optional<std::string> Sha256::Digest() {
  std::array<std::uint8_t, 32> digest{};
  if (context_->context == nullptr) return std::nullopt;
  if (EVP_DigestFinal_ex(context_->context, digest.data(), nullptr) != 1) return std::nullopt;
  return fmt::format("{:02x}", fmt::join(digest, ""));
}

}  // namespace vexa
