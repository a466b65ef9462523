#include "host/hypervisor/png_image.h"

#include <png.h>

#include <charconv>
#include <cstdint>
#include <limits>
#include <optional>

namespace vexa::hypervisor {
namespace {

constexpr std::string_view kBlanks = " \t\r\n";

// Takes the next number of a PPM's header, after blanks and comments.
std::optional<std::size_t> TakeNumber(std::string_view& text) {
  for (;;) {
    const std::size_t start = text.find_first_not_of(kBlanks);
    if (start == std::string_view::npos) return std::nullopt;
    text.remove_prefix(start);
    if (text.front() != '#') break;
    const std::size_t end = text.find('\n');
    if (end == std::string_view::npos) return std::nullopt;
    text.remove_prefix(end);
  }
  std::size_t number = 0;
  const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc()) return std::nullopt;
  text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
  return number;
}

Error NotAPicture() { return Error(ErrorCode::kInvalid, "The hypervisor returned a picture that cannot be read"); }

}  // namespace

bool IsPng(std::string_view bytes) { return bytes.starts_with(std::string_view("\x89PNG\r\n\x1a\n", 8)); }

Result<std::string> PngOfPpm(std::string_view ppm) {
  if (!ppm.starts_with("P6")) return NotAPicture();
  ppm.remove_prefix(2);
  const auto width = TakeNumber(ppm);
  const auto height = TakeNumber(ppm);
  const auto largest = TakeNumber(ppm);
  if (!width || !height || !largest || *largest != 255 || *width == 0 || *height == 0) return NotAPicture();
  if (*width > kMaxScreenPixels || *height > kMaxScreenPixels) {
    return Error(ErrorCode::kInvalid, "The screen is larger than 8192 by 8192 pixels");
  }
  // One blank ends the header.
  if (ppm.size() != *width * *height * 3 + 1) return NotAPicture();
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  image.width = static_cast<png_uint_32>(*width);
  image.height = static_cast<png_uint_32>(*height);
  image.format = PNG_FORMAT_RGB;
  std::string png(PNG_IMAGE_PNG_SIZE_MAX(image), '\0');
  png_alloc_size_t bytes = png.size();
  if (png_image_write_to_memory(&image, png.data(), &bytes, 0, ppm.data() + 1, 0, nullptr) == 0) {
    return Error(ErrorCode::kInternal, "The picture of the screen cannot be written as PNG", image.message);
  }
  if (bytes > kMaxPngBytes) return Error(ErrorCode::kInvalid, "The picture of the screen is larger than 10 MiB");
  png.resize(bytes);
  png.shrink_to_fit();
  return png;
}

}  // namespace vexa::hypervisor
