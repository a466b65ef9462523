// What the tests of editing guests have in common.
#pragma once

#include <string>
#include <vector>

#include "tests/unit/webapi/guest_action_fixture.h"
#include "webapi/guest/guest.h"

namespace vexa::test {

enum class Role { kAdministrator, kAdvanced, kGranted, kStranger };
inline constexpr Role kRoles[] = {Role::kAdministrator, Role::kAdvanced, Role::kGranted, Role::kStranger};

// Guest "web" of this id, its repository on the host "north"; the local host is "south". Both hosts do what they are
// asked.
class GuestSet : public GuestActions {
 protected:
  static inline const std::string kGuest = "8f14e45f-ceea-467f-a9d1-0f2b6c1e4a01";
  static inline const std::string kUuid = "c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10";

  void SetUp() override {
    GuestActions::SetUp();
    auto& platform = Platform();
    platform.local_host_id = "south";
    platform.names["guest/" + kGuest] = "web";
    platform.repo_hosts[kGuest] = "north";
    platform.replies = {{"north", Success("null")}, {"south", Success("null")}};
    platform.image_ids = {"image-1", "unmounted"};
    platform.image_paths = {"/isos/good.iso"};
    platform.image_forms = {"/isos/bad.iso"};
  }

  // A guest's id and the members of `text`, an object.
  static Json::Value With(const std::string& text) {
    Json::Value parameters = Parsed(text);
    parameters["guest_id"] = kGuest;
    return parameters;
  }
  static Json::Value With(const std::string& name, const Json::Value& value) {
    Json::Value parameters(Json::objectValue);
    parameters["guest_id"] = kGuest;
    parameters[name] = value;
    return parameters;
  }

  static VEXA::APIResponse Set(const Json::Value& parameters, Role role = Role::kAdministrator) {
    Platform().advanced_result = role == Role::kAdvanced ? 1 : 0;
    if (role == Role::kGranted) Platform().available = {kGuest};
    VEXA::APIRequest request = role == Role::kAdministrator ? AsAdministrator(parameters) : AsUser(parameters);
    VEXA::APIResponse response;
    VexaVirtualization::Guest::Set(&request, &response);
    EXPECT_EQ(Text(request.GetParam("", Json::Value())), Text(parameters)) << "a request stays as it is";
    return response;
  }

  static std::string BadParameters(const Json::Value& parameters) {
    return "guest: Bad parameters, request: " + Text(parameters);
  }
  static std::string BadParameters(const std::string& what, const Json::Value& parameters) {
    return "guest: Bad parameters (" + what + "), request: " + Text(parameters);
  }

  // Nothing has been sent, logged for users or set.
  static void ExpectNothingDone() {
    EXPECT_TRUE(Platform().sent.empty());
    EXPECT_TRUE(Platform().cluster_log.empty());
    EXPECT_TRUE(Platform().guest_sets.empty());
  }
  static void ExpectRefused(const Json::Value& parameters, int code, const std::vector<std::string>& lines) {
    ClearCapturedSyslog();
    ExpectError(Set(parameters), code);
    ExpectLines(lines);
    ExpectNothingDone();
  }

  // One request was sent with the guest's id and these members and no others.
  static void ExpectOrderOf(const std::string& host, const Json::Value& members) {
    Json::Value order = members;
    order["api"] = "VEXA.CCC.Guest";
    order["version"] = 1;
    order["method"] = "set";
    order["guest_id"] = kGuest;
    ExpectSent(host, Text(order));
  }
  static void ExpectOrder(const std::string& host, const std::string& members) { ExpectOrderOf(host, Parsed(members)); }

  // Everything went well: rights were set once after the host, and the cluster log has the line.
  static void ExpectEdited(const VEXA::APIResponse& response, const std::string& user = "root") {
    ExpectNullSuccess(response);
    EXPECT_EQ(Platform().guest_sets.size(), 1u);
    ExpectClusterLog({{user, 3, "The virtual machine [web] has been successfully edited."}});
  }
};

}  // namespace vexa::test
