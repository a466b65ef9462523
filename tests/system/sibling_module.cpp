// A module beside the library, as others write them: it knows the installed headers and nothing else.
#include <json/value.h>

#include "webapi/platform/ccc.h"
#include "webapi/platform/webapi.h"
#include "webapi/utils/utils.h"

namespace api = VexaVirtualization;

// Results of a few library calls: its own, one about a request, and one of the platform.
extern "C" __attribute__((visibility("default"))) const char* AskLibrary() {
  static std::string answers;
  Json::Value errors;
  api::AppendError("web-1", 404, errors);
  const VEXA::APIRequest request(Json::Value(Json::objectValue), "", VEXA::APIRequest::Privilege::kAdministrator);
  std::map<std::string, std::string> names;
  answers = api::GetVMCheckText(api::VMCHECK_HOST_OFFLINE) + " " + errors["404"][0].asString() + " " +
            (request.IsAdmin() ? "administrator" : "user") + " " +
            std::to_string(api::GetCateNameToIdMap(VexaCCC::DB::DashCate::Guest, names));
  return answers.c_str();
}
