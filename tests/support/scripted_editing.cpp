// The scripted platform: what editing guests needs.
#include <string>
#include <vector>

#include "tests/support/scripted_platform.h"
#include "webapi/platform/ccc.h"
#include "webapi/platform/ccc_guest_admin.h"
#include "webapi/platform/ccc_image.h"

using vexa::test::Platform;

namespace VexaCCC {

int gaGuestSet(const std::string& guest_id, const std::vector<tagGuestAdminRule>& rules,
               std::vector<std::string>& failed_users) {
  Platform().calls.push_back("guest_set " + guest_id);
  Platform().guest_sets.emplace_back(guest_id, rules);
  for (const std::string& user : Platform().guest_set_failures) failed_users.push_back(user);
  return Platform().guest_set_result;
}

bool GuestImageIsValidID(const std::string& text) {
  Platform().requested_images.push_back("id " + text);
  return Platform().image_ids.contains(text);
}

bool GuestImageIsValidDsPath(const std::string& text) {
  Platform().requested_images.push_back("path " + text);
  return Platform().image_paths.contains(text);
}

bool GuestImageIsDsPath(const std::string& text) {
  Platform().requested_images.push_back("form " + text);
  return Platform().image_paths.contains(text) || Platform().image_forms.contains(text);
}

namespace Utils {

std::string join(const Json::Value& array, const std::string& separator) {
  std::string joined;
  for (Json::ArrayIndex i = 0; i < array.size(); ++i) joined += (i > 0 ? separator : "") + array[i].asString();
  return joined;
}

Json::Value makeJsonObject(const std::map<std::string, std::string>& members) {
  Json::Value object(Json::objectValue);
  for (const auto& [name, text] : members) object[name] = text;
  return object;
}

}  // namespace Utils

}  // namespace VexaCCC
