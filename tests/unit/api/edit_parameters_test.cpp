// The parameters of edits in the API: one per row of the settings table, for callers that may set it.
#include "host/api/edit_parameters.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "host/base/guest_settings.h"
#include "tests/support/matchers.h"

namespace vexa::api {
namespace {

// Null when no parameter has this name.
const Parameter* Find(const std::vector<Parameter>& parameters, std::string_view name) {
  const auto found = std::ranges::find(parameters, name, &Parameter::name);
  return found == parameters.end() ? nullptr : &*found;
}

TEST(EditParameters, UserParameters_AreAllRowsInOrder) {
  const std::vector<Parameter> parameters = EditParameters(Audience::kUsers);
  ASSERT_EQ(parameters.size(), std::size(kGuestSettings) + 1);
  EXPECT_EQ(parameters[0].name, "guest_id");
  EXPECT_EQ(parameters[0].necessity, Necessity::kRequired);
  for (std::size_t i = 0; i < std::size(kGuestSettings); ++i) {
    EXPECT_EQ(parameters[i + 1].name, kGuestSettings[i].name);
    EXPECT_EQ(parameters[i + 1].description, kGuestSettings[i].for_users);
    EXPECT_EQ(parameters[i + 1].necessity, Necessity::kOptional);
  }
}

TEST(EditParameters, HostParameters_OmitOnlyWhatTheLibraryHandles) {
  const std::vector<Parameter> parameters = EditParameters(Audience::kHosts);
  EXPECT_EQ(parameters[0].necessity, Necessity::kRequired);
  std::vector<std::string> missing;
  for (const GuestSetting& setting : kGuestSettings) {
    const Parameter* const parameter = Find(parameters, setting.name);
    if (!parameter) {
      missing.emplace_back(setting.name);
      continue;
    }
    EXPECT_EQ(parameter->description, setting.for_hosts);
    EXPECT_EQ(parameter->necessity, Necessity::kOptional);
  }
  EXPECT_THAT(missing, ElementsAre("repo_id", "guest_privilege"));
  EXPECT_EQ(parameters.size(), std::size(kGuestSettings) + 1 - missing.size());
}

TEST(EditParameters, Types_AreThoseOfTheRows) {
  const std::pair<const char*, ParameterType> rows[] = {{"name", ParameterType::kString},
                                                        {"repo_id", ParameterType::kString},
                                                        {"vcpu_num", ParameterType::kInteger},
                                                        {"use_ovmf", ParameterType::kBoolean},
                                                        {"usbs", ParameterType::kArray}};
  const std::vector<Parameter> parameters = EditParameters(Audience::kUsers);
  for (const auto& [name, type] : rows) {
    ASSERT_NE(Find(parameters, name), nullptr) << name;
    EXPECT_EQ(Find(parameters, name)->type, type) << name;
  }
}

}  // namespace
}  // namespace vexa::api
