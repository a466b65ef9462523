#include "host/records/guest_image.h"

#include <algorithm>
#include <cctype>

#include "host/base/json_parse.h"
#include "host/base/rooted_file.h"
#include "host/records/environment.h"
#include "host/records/reading.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"

namespace vexa::cluster {
namespace {

// From the C0 and C1 sets, in UTF-8.
bool HasControlCharacter(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) return true;
  }
  return false;
}

// Whether the last segment is a name followed by ".iso", in any case.
bool IsNamedAsImage(std::string_view path) {
  constexpr std::string_view kEnding = ".iso";
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return name.size() > kEnding.size() &&
         std::ranges::equal(name.substr(name.size() - kEnding.size()), kEnding,
                            [](unsigned char a, unsigned char b) { return std::tolower(a) == b; });
}

// Whether it is valid as a path in a shared folder. The file system is not checked.
bool CanBeImagePath(std::string_view path) {
  const bool has_folder = path.starts_with('/') && path.find('/', 1) != std::string_view::npos;
  return has_folder && path.size() <= kMaxImagePathBytes && IsNamedAsImage(path) && IsValidUtf8(path) &&
         !HasControlCharacter(path);
}

}  // namespace
}  // namespace vexa::cluster

namespace VexaCCC {

bool GuestImageIsValidID(const std::string& text) {
  if (text == vexa::cluster::kEmptyDrive) return true;
  if (!Utils::isUUID(text)) return false;
  const auto image = vexa::cluster::ReadObject(vexa::cluster::kImageCategory, text);
  if (!image) return false;
  const Json::Value& path = vexa::json::Member(**image, vexa::cluster::kImagePath);
  return path.isString() && !vexa::json::String(path).empty();
}

bool GuestImageIsDsPath(const std::string& text) { return text.size() > 1 && text.front() == '/'; }

bool GuestImageIsValidDsPath(const std::string& text) {
  const vexa::cluster::Environment* environment = vexa::cluster::CurrentEnvironment();
  return environment && vexa::cluster::CanBeImagePath(text) && vexa::IsRegularFileBelow(environment->image_roots, text);
}

}  // namespace VexaCCC
