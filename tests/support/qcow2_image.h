// The headers of qcow2 images, as a hostile user could write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace vexa::test {

// One cluster with a header; a complete image needs more (MakeEmptyImage).
struct Qcow2Image {
  std::string magic = "QFI\xfb";
  std::uint32_t version = 3;
  std::uint64_t backing_offset = 0;  // 0 and a name: behind the extensions
  std::string backing_file;
  std::uint32_t cluster_bits = 16;
  std::uint64_t size = std::uint64_t{20} << 30;
  std::uint32_t encryption = 0;
  std::uint64_t features = 0;  // incompatible ones
  std::uint32_t header_length = 104;
  std::optional<std::string> data_file;  // the extension with its name
  std::string extensions;                // others, before that one

  std::string Header() const {
    std::string bytes = magic + Number(version, 4);
    const std::string end = Extensions();
    const std::uint64_t fixed = version == 2 ? 72 : 104;
    const bool is_placed = !backing_file.empty() && backing_offset == 0;
    bytes += Number(is_placed ? fixed + end.size() : backing_offset, 8) + Number(backing_file.size(), 4);
    bytes += Number(cluster_bits, 4) + Number(size, 8) + Number(encryption, 4);
    bytes += Number(1, 4) + Number(0x30000, 8) + Number(0x10000, 8) + Number(1, 4) + Number(0, 4) + Number(0, 8);
    if (version != 2) bytes += Number(features, 8) + Number(0, 16) + Number(4, 4) + Number(header_length, 4);
    return bytes + end + backing_file;
  }
  // The whole first cluster.
  std::string Text() const {
    std::string bytes = Header();
    if (bytes.size() < (std::size_t{1} << 16)) bytes.resize(std::size_t{1} << 16);
    return bytes;
  }

  static std::string Number(std::uint64_t number, unsigned bytes) {
    std::string text;
    for (unsigned i = bytes; i-- > 0;) text += i < 8 ? static_cast<char>(number >> (8 * i) & 0xff) : '\0';
    return text;
  }
  static std::string Extension(std::uint32_t type, const std::string& content) {
    const std::string padding((8 - content.size() % 8) % 8, '\0');
    return Number(type, 4) + Number(content.size(), 4) + content + padding;
  }

 private:
  std::string Extensions() const {
    std::string all = extensions;
    if (data_file) all += Extension(0x44415441, *data_file);
    return all + Number(0, 8);
  }
};

}  // namespace vexa::test
