#include "host/api/edit_parameters.h"

#include "host/base/guest_settings.h"

namespace vexa::webapi {
namespace {

ParameterType TypeOf(SettingType type) {
  switch (type) {
    case SettingType::kText:
    case SettingType::kId:
      break;
    case SettingType::kNumber:
      return ParameterType::kInteger;
    case SettingType::kYesNo:
      return ParameterType::kBoolean;
    case SettingType::kList:
      return ParameterType::kArray;
  }
  return ParameterType::kString;
}

}  // namespace

std::vector<Parameter> EditParameters(Audience audience) {
  std::vector<Parameter> parameters = {
      {"guest_id", ParameterType::kString, Necessity::kRequired, "The guest's id, a UUID."}};
  for (const GuestSetting& setting : kGuestSettings) {
    const char* const description = audience == Audience::kUsers ? setting.for_users : setting.for_hosts;
    if (description) parameters.push_back({setting.name, TypeOf(setting.type), Necessity::kOptional, description});
  }
  return parameters;
}

}  // namespace vexa::webapi
