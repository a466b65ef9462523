// Guest::Set: which host is called, contradictory parameters, renaming, and the order of the checks.
#include "tests/unit/webapi/guest_set_fixture.h"

namespace vexa::test {
namespace {

constexpr const char* kDiskLists[] = {"vdisks_add", "vdisks_del", "vdisks_edit", "vdisks_order"};
constexpr const char* kDisk = R"([{"vdisk_id":"c9a646d3-9c61-4cc7-9d21-8c3e5b7f2a10","vdisk_size":1}])";

class GuestSetOrder : public GuestSet {
 protected:
  static std::string NoRepositoryHost() { return "guest: Failed to get host of guest[" + kGuest + "]'s repo"; }
  // The host that was asked.
  static std::string Asked() { return Platform().sent.size() == 1 ? Platform().sent[0].host_id : "not one"; }
  static Json::Value WithDisks() { return With("vdisks_order", Parsed(kDisk)); }
};

// The host.

TEST_F(GuestSetOrder, Set_EachDiskList_IsSentToRepositoryHost) {
  for (const char* list : kDiskLists) {
    SetUp();
    ExpectEdited(Set(With(list, Parsed(kDisk))));
    EXPECT_EQ(Asked(), "north") << list;
    EXPECT_EQ(Platform().conf_reads, std::vector<std::string>{"repo_host/" + kGuest}) << "asked once";
  }
}

TEST_F(GuestSetOrder, Set_EmptyDiskLists_AreSentToLocalHost) {
  Json::Value members(Json::objectValue);
  for (const char* list : kDiskLists) members[list] = Json::Value(Json::arrayValue);
  Json::Value parameters = members;
  parameters["guest_id"] = kGuest;
  ExpectEdited(Set(parameters));
  ExpectOrderOf("south", members);
  EXPECT_TRUE(Platform().conf_reads.empty());
}

TEST_F(GuestSetOrder, Set_OneDiskListAmongEmptyOnes_IsSentToRepositoryHost) {
  for (const char* full : kDiskLists) {
    SetUp();
    Json::Value parameters = With("{}");
    for (const char* list : kDiskLists) parameters[list] = list == full ? Parsed(kDisk) : Parsed("[]");
    ExpectEdited(Set(parameters));
    EXPECT_EQ(Asked(), "north") << full;
  }
}

TEST_F(GuestSetOrder, Set_UnknownRepositoryHost_IsLoggedAndEmptyHostCalled) {
  Platform().conf_results["repo_host/" + kGuest] = -1;  // and returns a host anyway
  ExpectError(Set(WithDisks()), 909);
  EXPECT_EQ(Asked(), "");
  Json::Value unreachable = Failure(102);
  ExpectLines({NoRepositoryHost(), BadResponse("guest", 0, unreachable)});
  ExpectClusterLog({{"root", 1, "Failed to edit the virtual machine [web] due to internal read/write error."}});
}

TEST_F(GuestSetOrder, Set_PositiveLookUpResult_IsFailure) {
  Platform().conf_results["repo_host/" + kGuest] = 1;
  ExpectError(Set(WithDisks()), 909);
  EXPECT_EQ(Asked(), "");
}

TEST_F(GuestSetOrder, Set_UnknownRepositoryHost_LaterErrorTakesPrecedence) {
  Platform().conf_results["repo_host/" + kGuest] = -1;
  Platform().replies[""] = Success("null");
  ExpectEdited(Set(WithDisks()));
  ExpectLines({NoRepositoryHost()});

  SetUp();
  Platform().conf_results["repo_host/" + kGuest] = -1;
  Json::Value parameters = WithDisks();
  parameters["boot_from"] = "floppy";
  ExpectRefused(parameters, 401, {NoRepositoryHost(), BadParameters("boot_from is invalid", parameters)});
}

TEST_F(GuestSetOrder, Set_UnknownRepositoryHostOnly_IsReported) {
  Platform().conf_results["repo_host/" + kGuest] = -1;
  Platform().replies[""] = Failure(2101);
  Platform().replies[""]["error"]["message"] = Parsed(R"({"pin_reserved":true})");
  ExpectError(Set(WithDisks()), 403);
}

// Contradictions.

TEST_F(GuestSetOrder, BootDevice_OtherThanTwoNames_IsRefused) {
  for (const char* device : {"iso", "disk"}) {
    SetUp();
    ExpectEdited(Set(With("boot_from", device)));
    ExpectOrder("south", std::string("{\"boot_from\":\"") + device + "\"}");
  }
  SetUp();
  for (const char* device : {"", "ISO", "Disk", "iso ", " disk", "isodisk", "cdrom", "%s"}) {
    const Json::Value parameters = With("boot_from", device);
    ExpectRefused(parameters, 401, {BadParameters("boot_from is invalid", parameters)});
  }
  const Json::Value parameters = With("boot_from", std::string("iso\0", 4));
  ExpectRefused(parameters, 401, {BadParameters("boot_from is invalid", parameters)});
}

TEST_F(GuestSetOrder, HyperV_WithoutCpuPassthru_IsRefused) {
  constexpr const char* kLine = "guest: Cpu compatible mode and hyper-V are mutual exclusive.";
  ExpectRefused(With(R"({"hyperv_enlighten":true,"cpu_passthru":false})"), 401, {kLine});
  for (const char* members :
       {R"({"hyperv_enlighten":true})", R"({"hyperv_enlighten":false})", R"({"cpu_passthru":false})",
        R"({"cpu_passthru":true})", R"({"cpu_passthru":true,"hyperv_enlighten":true})",
        R"({"cpu_passthru":false,"hyperv_enlighten":false})", R"({"cpu_passthru":true,"hyperv_enlighten":false})"}) {
    SetUp();
    ExpectEdited(Set(With(members)));
    ExpectOrder("south", members);
    ExpectNoLine();
  }
}

// Names.

TEST_F(GuestSetOrder, Set_NewName_IsCheckedSentAndLogged) {
  ExpectNullSuccess(Set(With(R"({"name":"shop"})")));
  ExpectOrder("south", R"({"name":"shop"})");
  EXPECT_EQ(Platform().requested_names, std::vector<std::string>{"guest/shop"});
  ExpectClusterLog({{"root", 3, "The virtual machine [web] has been successfully edited and renamed to [shop]."}});
  ExpectNoLine();
}

TEST_F(GuestSetOrder, Set_UnchangedName_IsNeitherCheckedNorSent) {
  Platform().conflict_result = 1;
  ExpectEdited(Set(With(R"({"name":"web"})")));
  ExpectOrder("south", "{}");
  EXPECT_TRUE(Platform().requested_names.empty());
}

TEST_F(GuestSetOrder, Set_NameDiffersInOneByte_IsNewName) {
  for (const std::string& name : std::vector<std::string>{"Web", "web ", " web", "we", std::string("web\0", 4)}) {
    SetUp();
    ExpectNullSuccess(Set(With("name", name)));
    EXPECT_EQ(Platform().requested_names, std::vector<std::string>{"guest/" + name});
    ASSERT_EQ(Platform().sent.size(), 1u);
    EXPECT_EQ(Platform().sent[0].json["name"], name);
  }
}

TEST_F(GuestSetOrder, Set_NameTaken_ReturnsConflictAndLogsTwoLines) {
  Platform().conflict_result = 1;
  ExpectRefused(With(R"({"name":"shop"})"), 406, {"utils: [shop] name conflict.", "guest: Guest name[shop] conflict."});
}

TEST_F(GuestSetOrder, NameConflict_Unreadable_IsReported) {
  Platform().conflict_result = -1;
  ExpectRefused(With(R"({"name":"a%s"})"), 403,
                {"utils: Failed to check name conflict.", "guest: Guest name[a%s] conflict."});
}

TEST_F(GuestSetOrder, Set_UnknownPreviousName_IsLoggedAsDash) {
  Platform().names.clear();
  const std::string line = "guest: Failed to get guest [" + kGuest + "] original name.";
  ExpectNullSuccess(Set(With(R"({"name":"shop"})")));
  ExpectLines({line});
  ExpectClusterLog({{"root", 3, "The virtual machine [-] has been successfully edited and renamed to [shop]."}});

  SetUp();
  Platform().names.clear();
  Platform().conflict_result = 1;
  ExpectNullSuccess(Set(With(R"({"name":"-"})")));
  ExpectLines({line});
  ExpectOrder("south", "{}");
  ExpectClusterLog({{"root", 3, "The virtual machine [-] has been successfully edited."}});
}

TEST_F(GuestSetOrder, Set_PreviousNameEmpty_IsLoggedAsName) {
  Platform().names["guest/" + kGuest] = "";
  ExpectNullSuccess(Set(With("{}")));
  ExpectNoLine();
  ExpectClusterLog({{"root", 3, "The virtual machine [] has been successfully edited."}});
}

TEST_F(GuestSetOrder, Log_NamesWithPlaceholders_AreNotExpanded) {
  Platform().names["guest/" + kGuest] = "%s%n";
  ExpectNullSuccess(Set(With(R"({"name":"%d%x"})")));
  ExpectClusterLog({{"root", 3, "The virtual machine [%s%n] has been successfully edited and renamed to [%d%x]."}});
}

// The order of it all.

TEST_F(GuestSetOrder, Set_EachErrorCorrected_ReachesNextStepUntilSuccess) {
  Json::Value parameters = WithDisks();
  parameters["name"] = "shop";
  ExpectNullSuccess(Set(parameters, Role::kAdvanced));
  ExpectCalls(
      {"rights", "name guest/" + kGuest, "conflict guest/shop", "send north/set", "guest_set " + kGuest, "log 3"});
}

TEST_F(GuestSetOrder, Set_SeveralErrors_OnlyFirstIsReported) {
  Platform().conflict_result = 1;
  Platform().conf_results["repo_host/" + kGuest] = -1;
  Json::Value parameters = WithDisks();
  parameters["vdisks_add"] = Parsed("[5]");
  parameters["name"] = "shop";
  parameters["hyperv_enlighten"] = true;
  parameters["cpu_passthru"] = false;
  parameters["boot_from"] = "x";
  parameters["vcpu_num"] = "x";
  // Form, then rights, then boot device, Hyper-V, the name and the lists.
  VEXA::APIRequest request = AsUser(parameters);
  VEXA::APIResponse response;
  VexaVirtualization::Guest::Set(&request, &response);
  ExpectError(response, 401);
  ExpectLines({BadParameters(parameters)});
  EXPECT_EQ(Platform().rights_calls, 0);
  parameters["vcpu_num"] = 1;
  ExpectError(Set(parameters, Role::kStranger), 409);
  ExpectLines({"guest: Action on guest[" + kGuest + "] is not allowed from user[eve]"});
  ExpectRefused(parameters, 401, {NoRepositoryHost(), BadParameters("boot_from is invalid", parameters)});
  parameters["boot_from"] = "iso";
  ExpectRefused(parameters, 401, {NoRepositoryHost(), "guest: Cpu compatible mode and hyper-V are mutual exclusive."});
  parameters["cpu_passthru"] = true;
  ExpectRefused(parameters, 406,
                {NoRepositoryHost(), "utils: [shop] name conflict.", "guest: Guest name[shop] conflict."});
  Platform().conflict_result = 0;
  ExpectRefused(parameters, 401,
                {NoRepositoryHost(), BadParameters(R"(vdisks_add[0]["vdisk_size"] <= 0)", parameters)});
}

TEST_F(GuestSetOrder, Set_MalformedRequest_MakesNoCalls) {
  const Json::Value parameters = With(R"({"vcpu_num":"x"})");
  ExpectRefused(parameters, 401, {BadParameters(parameters)});
  ExpectCalls({});
  EXPECT_TRUE(Platform().conf_reads.empty());
}

}  // namespace
}  // namespace vexa::test
