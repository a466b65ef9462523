// Images that are copied: what names another file never counts as an image that stands alone, and what begins like
// another format never counts as a raw one.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <fstream>
#include <string>
#include <string_view>

#include "fuzz/check.h"
#include "host/disks/source_image.h"
#include "tests/support/temp_dir.h"

namespace {

using vexa::disks::SourceFormat;
using vexa::disks::SourceImage;
using vexa::fuzz::Check;

// A little-endian field; one that is cut off is zero.
std::uint64_t Field(std::string_view text, std::size_t offset, std::size_t bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes; i-- > 0;) {
    number = number << 8 | (offset + i < text.size() ? static_cast<unsigned char>(text[offset + i]) : 0U);
  }
  return number;
}

// What QEMU reads as the text of a VMDK image, in lower case.
std::string VmdkText(std::string_view image) {
  const std::uint64_t begin = Field(image, 28, 8);
  if (begin > image.size() / 512) return "";
  std::string text(image.substr(begin * 512, 20 * 512));
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

void CheckVmdk(std::string_view image, const SourceImage& source) {
  Check(image.starts_with("KDMV"), "a VMDK image begins as one");
  Check(source.size == Field(image, 12, 8) * 512, "the size is the header's");
  const std::string text = VmdkText(image);
  Check(text.find("parentfilenamehint") == std::string::npos, "a VMDK image has no parent");
  Check(text.find("createtype=\"") != std::string::npos, "a VMDK image has a type");
}

void CheckVdi(std::string_view image, const SourceImage& source) {
  Check(source.size == Field(image, 0x170, 8), "the size is the header's");
  Check(Field(image, 0x4c, 4) == 1 || Field(image, 0x4c, 4) == 2, "a VDI image is dynamic or static");
  for (std::size_t at = 0x1a8; at < 0x1c8; ++at) Check(Field(image, at, 1) == 0, "a VDI image has no parent");
}

void CheckRaw(std::string_view image, const SourceImage& source) {
  Check(source.size == image.size(), "a raw image is its file");
  for (const std::string_view magic :
       {"QFI\xfb", "KDMV", "COWD", "# Disk Descriptor", "vhdxfile", "conectix", "WithoutFreeSpace"}) {
    Check(!image.starts_with(magic), "another format is not taken for a raw image");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const vexa::test::TempDir folder;
  const std::string_view image = vexa::fuzz::Text(data, size);
  const std::string path = folder.File("image");
  std::ofstream(path, std::ios::binary | std::ios::trunc) << image;
  const auto source = vexa::disks::OpenSourceImage({folder.path()}, path);
  if (!source) {
    Check(source.error().code() == vexa::ErrorCode::kInvalid, "an unusable image is kInvalid");
    Check(source.error().message().find(path) != std::string::npos, "the reason names the image");
    Check(vexa::fuzz::IsOneLine(source.error().ToString()), "the reason is one line");
    return 0;
  }
  Check(source->size > 0, "an image has a size");
  if (source->format == SourceFormat::kVmdk) CheckVmdk(image, *source);
  if (source->format == SourceFormat::kVdi) CheckVdi(image, *source);
  if (source->format == SourceFormat::kRaw) CheckRaw(image, *source);
  return 0;
}
