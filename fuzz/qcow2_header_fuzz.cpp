// The headers of qcow2 images: what names another file never counts as an image that stands alone.
#include <algorithm>
#include <cstdint>
#include <string_view>

#include "fuzz/check.h"
#include "host/base/qcow2_header.h"

namespace {

using vexa::fuzz::Check;

// Reads a field as QEMU does; a field that is cut off is zero.
std::uint64_t Field(std::string_view text, std::size_t offset, std::size_t bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < bytes; ++i) {
    number = number << 8 | (offset + i < text.size() ? static_cast<unsigned char>(text[offset + i]) : 0U);
  }
  return number;
}

bool NeedsMore(std::string_view text) {
  constexpr std::uint64_t kFeaturesThatNeedNothing = 0x1b;
  const bool has_backing_file = Field(text, 8, 8) != 0 || Field(text, 16, 4) != 0;
  const bool has_features = Field(text, 4, 4) == 3 && (Field(text, 72, 8) & ~kFeaturesThatNeedNothing) != 0;
  return has_backing_file || has_features || Field(text, 32, 4) != 0;
}

bool StandsAlone(const vexa::Qcow2Header& header) {
  return !header.backing_file && !header.data_file && !header.is_encrypted && header.unknown_features == 0;
}

void CheckHeader(std::string_view text) {
  const auto header = vexa::ParseQcow2Header(text);
  if (!header) {
    Check(header.error().code() == vexa::ErrorCode::kInvalid, "an unusable header is kInvalid");
    Check(!header.error().message().empty(), "there is a reason");
    return;
  }
  Check(header->version == 2 || header->version == 3, "the version is known");
  Check(header->size == Field(text, 24, 8), "the size is the header's");
  Check(!header->backing_file || header->backing_file->size() <= 1023, "a name is short");
  Check(!StandsAlone(*header) || !NeedsMore(text), "an image that stands alone needs nothing else");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text = vexa::fuzz::Text(data, size).substr(0, vexa::kMaxQcow2HeaderBytes);
  CheckHeader(text);
  for (std::size_t length = 0; length < std::min<std::size_t>(text.size(), 256); ++length) {
    CheckHeader(text.substr(0, length));
  }
  return 0;
}
