#include "host/hypervisor/png_image.h"

#include <gtest/gtest.h>

#include "tests/support/console_guest.h"

namespace vexa::hypervisor {
namespace {

std::string Reason(const Result<std::string>& png) { return png ? "" : png.error().ToString(); }

TEST(PngImage, Ppm_BecomesPngWithSamePixels) {
  const std::string pixels = {'\0', '\0', '\0', '\x80', '\x80', '\x80', '\xff', '\xff', '\xff', '\0', '\0', '\0'};
  const auto png = PngOfPpm("P6\n# made by hand\n2 2\n255\n" + pixels);
  ASSERT_TRUE(png.ok()) << Reason(png);
  EXPECT_TRUE(IsPng(*png));
  const test::Picture picture = test::DecodePng(*png);
  EXPECT_EQ(picture.width, 2U);
  EXPECT_EQ(picture.height, 2U);
  EXPECT_EQ(picture.pixels, (std::vector<std::uint8_t>{0, 0x80, 0xff, 0}));
}

TEST(PngImage, NotAPpm_IsRefused) {
  for (const std::string ppm : {"", "P6", "P5\n1 1\n255\nx", "P6\n1 1\n65535\nxxxxxx", "P6\n0 1\n255\n",
                                "P6\n1 0\n255\n", "P6\n-1 1\n255\nxxx", "P6\n1 1\n255\nxx", "P6\n1 1\n255\nxxxx",
                                "P6\n1 1\n255", "P6\n# no end", "P6\n99999999999999999999999 1\n255\n"}) {
    EXPECT_EQ(Reason(PngOfPpm(ppm)), "The hypervisor returned a picture that cannot be read") << ppm;
  }
}

TEST(PngImage, LargeScreen_IsRefused) {
  EXPECT_EQ(Reason(PngOfPpm("P6\n8193 1\n255\n" + std::string(8193 * 3, 'x'))),
            "The screen is larger than 8192 by 8192 pixels");
}

// Noise, which cannot be made smaller.
TEST(PngImage, LargePng_IsRefused) {
  std::string ppm = "P6\n2048 2048\n255\n";
  std::uint32_t state = 1;
  for (std::size_t i = 0; i < std::size_t{2048} * 2048 * 3; ++i) {
    state = state * 1664525 + 1013904223;
    ppm += static_cast<char>(state >> 24);
  }
  EXPECT_EQ(Reason(PngOfPpm(ppm)), "The picture of the screen is larger than 10 MiB");
}

}  // namespace
}  // namespace vexa::hypervisor
