// Pictures as PNG.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "host/base/result.h"

namespace vexa::hypervisor {

// The longest side of a screen that is accepted, and the largest picture that is made of one.
inline constexpr std::size_t kMaxScreenPixels = 8192;
inline constexpr std::size_t kMaxPngBytes = std::size_t{10} << 20;

// Makes a PNG of a binary PPM with three bytes per pixel ("P6", 255), as QEMU writes it. kInvalid for any other text,
// and for a picture with a side above kMaxScreenPixels, or whose PNG is larger than kMaxPngBytes.
Result<std::string> PngOfPpm(std::string_view ppm);

bool IsPng(std::string_view bytes);

}  // namespace vexa::hypervisor
