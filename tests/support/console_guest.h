// A guest that has a screen, a keyboard and a serial line, and nothing else: a boot sector. It shows kShownText in text
// mode, then what is typed; what comes on the serial line goes back with the case of its letters changed.
#pragma once

#include <png.h>

#include <cstdint>
#include <initializer_list>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

namespace vexa::test {

inline constexpr std::string_view kShownText = "vexa Console_42: {a|b} ~/x?";

inline std::string ConsoleBootSector() {
  const auto bytes = [](std::initializer_list<int> values) {
    std::string text;
    for (const int value : values) text += static_cast<char>(value);
    return text;
  };
  const std::string code = bytes({
      0x31, 0xc0,        // 00  xor ax, ax
      0x8e, 0xd8,        // 02  mov ds, ax
      0x8e, 0xd0,        // 04  mov ss, ax
      0xbc, 0x00, 0x7c,  // 06  mov sp, 0x7c00
      0xfc,              // 09  cld
      0xb8, 0x03, 0x00,  // 0a  mov ax, 3: text mode, an empty screen
      0xcd, 0x10,        // 0d  int 0x10
      0x31, 0xdb,        // 0f  xor bx, bx
      0xbe, 0x41, 0x7c,  // 11  mov si, text
      0xac,              // 14  shown: lodsb
      0x84, 0xc0,        // 15  test al, al
      0x74, 0x06,        // 17  jz loop
      0xb4, 0x0e,        // 19  mov ah, 0x0e
      0xcd, 0x10,        // 1b  int 0x10
      0xeb, 0xf5,        // 1d  jmp shown
      0xba, 0xfd, 0x03,  // 1f  loop: mov dx, 0x3fd
      0xec,              // 22  in al, dx
      0xa8, 0x01,        // 23  test al, 1
      0x74, 0x08,        // 25  jz keys
      0xb2, 0xf8,        // 27  mov dl, 0xf8
      0xec,              // 29  in al, dx
      0x34, 0x20,        // 2a  xor al, 0x20
      0xee,              // 2c  out dx, al
      0xeb, 0xf0,        // 2d  jmp loop
      0xb4, 0x01,        // 2f  keys: mov ah, 1
      0xcd, 0x16,        // 31  int 0x16
      0x74, 0xea,        // 33  jz loop
      0xb4, 0x00,        // 35  mov ah, 0
      0xcd, 0x16,        // 37  int 0x16
      0xb4, 0x0e,        // 39  mov ah, 0x0e
      0xcd, 0x10,        // 3b  int 0x10
      0xeb, 0xe0,        // 3d  jmp loop
      0x90, 0x90,        // 3f
  });                    // 41  text
  std::string sector = code + std::string(kShownText) + "\r\n" + '\0';
  sector.resize(510, '\0');
  sector += bytes({0x55, 0xaa});
  sector.resize(1 << 20, '\0');
  return sector;
}

// A guest that takes nothing from its serial line: another boot sector. It writes 'x' to the line, without an end, or
// nothing.
enum class SerialOutput { kNone, kEndless };
inline std::string DeafBootSector(SerialOutput output) {
  std::string sector = output == SerialOutput::kNone ? "\xfa\xf4\xeb\xfd"   // cli; hlt, again and again
                                                     : "\xba\xf8\x03\xb0x"  // mov dx, 0x3f8; mov al, 'x'
                                                       "\xee\xeb\xfd";      // out dx, al, again and again
  sector.resize(510, '\0');
  sector += "\x55\xaa";
  sector.resize(1 << 20, '\0');
  return sector;
}

struct Picture {
  std::size_t width = 0;
  std::size_t height = 0;
  std::vector<std::uint8_t> pixels;  // one byte each: grey
};

// Empty: it is not a PNG.
inline Picture DecodePng(const std::string& png) {
  Picture picture;
  png_image image{};
  image.version = PNG_IMAGE_VERSION;
  if (png_image_begin_read_from_memory(&image, png.data(), png.size()) == 0) return picture;
  image.format = PNG_FORMAT_GRAY;
  picture.pixels.resize(PNG_IMAGE_SIZE(image));
  if (png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr) == 0) return {};
  picture.width = image.width;
  picture.height = image.height;
  return picture;
}

// Of a PGM with one byte for each pixel. Empty: it is something else.
inline Picture DecodePgm(const std::string& pgm) {
  Picture picture;
  std::istringstream text(pgm);
  std::string magic;
  std::size_t maximum = 0;
  text >> magic >> picture.width >> picture.height >> maximum;
  const std::size_t pixels = picture.width * picture.height;
  if (!text || magic != "P5" || maximum != 255 || pgm.size() < pixels) return {};
  picture.pixels.assign(pgm.end() - static_cast<std::ptrdiff_t>(pixels), pgm.end());
  return picture;
}

// Which pixels are dark.
inline std::vector<bool> Dark(const std::vector<std::uint8_t>& pixels) {
  std::vector<bool> dark;
  for (const std::uint8_t pixel : pixels) dark.push_back(pixel < 85);
  return dark;
}

// The pixels of the first `columns` characters of a line of the text mode with 80 by 25 characters.
inline std::vector<std::uint8_t> TextLine(const Picture& picture, std::size_t line, std::size_t columns) {
  std::vector<std::uint8_t> pixels;
  const std::size_t cell_width = picture.width / 80;
  const std::size_t cell_height = picture.height / 25;
  for (std::size_t y = line * cell_height; y < (line + 1) * cell_height; ++y) {
    const auto start = picture.pixels.begin() + static_cast<std::ptrdiff_t>(y * picture.width);
    pixels.insert(pixels.end(), start, start + static_cast<std::ptrdiff_t>(columns * cell_width));
  }
  return pixels;
}

inline bool IsBlank(const std::vector<std::uint8_t>& pixels) {
  for (const std::uint8_t pixel : pixels) {
    if (pixel != 0) return false;
  }
  return true;
}

}  // namespace vexa::test
