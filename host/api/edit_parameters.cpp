#include "host/api/edit_parameters.h"

#include <cstddef>

#include "host/base/guest_settings.h"

namespace vexa::api {
namespace {

ParameterType TypeOf(SettingType type) {
  using enum ValueType;
  constexpr ParameterType kTypes[] = {kString, kInteger, kBoolean, kString, kArray};  // in the order of SettingType
  return kTypes[static_cast<std::size_t>(type)];
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

std::vector<Parameter> EditParametersWithApply(Audience audience) {
  std::vector<Parameter> parameters = EditParameters(audience);
  parameters.push_back(
      {"apply", ParameterType::kString, Necessity::kOptional,
       "\"now\": refuse the edit when a running guest cannot take all of it. \"next_start\": leave the "
       "running guest as it is. Otherwise it takes what it can, and the rest at its next start."});
  return parameters;
}

}  // namespace vexa::api
