#include "host/records/guest_image.h"

#include <algorithm>
#include <cctype>

#include "host/base/json_parse.h"
#include "host/base/rooted_file.h"
#include "host/records/environment.h"
#include "host/records/request_scope.h"
#include "json/readers.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_image.h"

namespace vexa::platform {
namespace {

// Whether `text`, in UTF-8, has a control character: C0, DEL or C1.
bool HasControlCharacter(std::string_view text) {
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < 0x20 || byte == 0x7F) return true;
    if (byte == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) < 0xA0) return true;
  }
  return false;
}

// Whether the last segment is a name with the extension ".iso" in upper or lower case.
bool HasIsoExtension(std::string_view path) {
  constexpr std::string_view kExtension = ".iso";
  const std::string_view name = path.substr(path.rfind('/') + 1);
  return name.size() > kExtension.size() &&
         std::ranges::equal(name.substr(name.size() - kExtension.size()), kExtension,
                            [](unsigned char a, unsigned char b) { return std::tolower(a) == b; });
}

// Whether `path` has the form of an image's path in a shared folder. Does not check that the file exists.
bool HasImagePathForm(std::string_view path) {
  const bool has_folder = path.starts_with('/') && path.find('/', 1) != std::string_view::npos;
  return has_folder && path.size() <= records::kMaxImagePathBytes && HasIsoExtension(path) && IsValidUtf8(path) &&
         !HasControlCharacter(path);
}

}  // namespace
}  // namespace vexa::platform

namespace VexaCCC {

bool GuestImageIsValidID(const std::string& text) {
  if (text == vexa::records::kEmptyDrive) return true;
  if (!Utils::isUUID(text)) return false;
  const auto reader = vexa::records::ReaderOfRequest();
  if (!reader) return false;
  const auto image = (*reader)->ReadObject(vexa::records::kImageCategory, text);
  if (!image) return false;
  const Json::Value& path = vexa::json::Member(**image, vexa::records::kImagePath);
  return path.isString() && !vexa::json::String(path).empty();
}

bool GuestImageIsDsPath(const std::string& text) { return text.size() > 1 && text.front() == '/'; }

bool GuestImageIsValidDsPath(const std::string& text) {
  const vexa::records::Environment* environment = vexa::records::CurrentEnvironment();
  if (!environment || !vexa::platform::HasImagePathForm(text)) return false;
  const vexa::records::RequestPause pause;  // the folder may be on a share whose server is gone
  return vexa::IsRegularFileBelow(environment->image_roots, text);
}

}  // namespace VexaCCC
