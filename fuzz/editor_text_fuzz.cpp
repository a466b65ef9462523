// The text that `vexa guest edit` gets back from the editor: an accepted one has known settings with values of their
// types, and every other text is refused with the number of a line.
#include <string>

#include "cli/guest_set_arguments.h"
#include "cli/guest_settings_text.h"
#include "fuzz/check.h"
#include "host/base/json_parse.h"
#include "json/readers.h"

namespace {

namespace json = VexaVirtualization::json;
using vexa::fuzz::Check;

bool HasType(const Json::Value& value, vexa::SettingType type) {
  switch (type) {
    case vexa::SettingType::kBoolean:
      return value.isBool();
    case vexa::SettingType::kNumber:
      return value.isIntegral() && !value.isBool();
    case vexa::SettingType::kString:
    case vexa::SettingType::kId:
      return value.isString();
    case vexa::SettingType::kList:
      return value.isArray();
  }
  return false;
}

void CheckAccepted(const Json::Value& settings) {
  Check(settings.isObject(), "settings have names");
  for (const std::string& name : json::MemberNames(settings)) {
    const vexa::GuestSetting* setting = vexa::cli::FindSetting(name);
    Check(setting != nullptr, "only known settings are accepted");
    Check(HasType(settings[name], setting->type), "a setting has its type");
  }
  const std::string text = vexa::cli::SettingsText("a\nb", settings);
  const auto again = vexa::cli::ParseSettings(text);
  Check(again.ok() && vexa::cli::ChangedSettings(settings, *again).empty(), "what is shown is what is read");
  Check(vexa::cli::ChangedSettings(*again, settings).empty(), "nothing is left out");
  Check(vexa::IsValidUtf8(text), "the text is UTF-8");
  // What a host would refuse is refused here, with a sentence.
  const vexa::Status possible = vexa::cli::CheckParameters(settings);
  if (!possible) Check(vexa::IsValidUtf8(possible.error().ToString()), "a refusal is text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(vexa::fuzz::Text(data, size));
  const auto settings = vexa::cli::ParseSettings(text);
  if (settings.ok()) {
    CheckAccepted(*settings);
  } else {
    Check(settings.error().code() == vexa::ErrorCode::kInvalid, "a refusal is kInvalid");
    Check(settings.error().ToString().find("ine ") != std::string::npos, "a refusal names the line");
  }
  // The same bytes as the reply of a server to "get".
  const auto reply = vexa::ParseJson(text);
  if (reply.ok()) CheckAccepted(vexa::cli::SettingsOf(*reply));
  return 0;
}
