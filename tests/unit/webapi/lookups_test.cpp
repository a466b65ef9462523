// Names, ids and lists.
#include <string>
#include <vector>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/platform/ccc_constants.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using namespace VexaVirtualization;  // NOLINT: nearly all of it is under test
using VexaCCC::DB::DashCate;
using Strings = std::vector<std::string>;
using Names = std::map<std::string, std::string>;

class Lookups : public StateLibrary {
 protected:
  static void AddGuest(const std::string& id, const std::string& name) {
    Platform().ids["guest"].push_back(id);
    Platform().names["guest/" + id] = name;
  }
};

TEST_F(Lookups, NameConflict_Found_ReturnsWebApiCode) {
  EXPECT_EQ(CheckNameConflict("web", DashCate::Guest), 0);
  ExpectNoLine();
  for (const int result : {-1, -2}) {
    Platform().conflict_result = result;
    EXPECT_EQ(CheckNameConflict("web", DashCate::Host), 403);
    ExpectLines({"utils: Failed to check name conflict."});
  }
  for (const int result : {1, 7}) {
    Platform().conflict_result = result;
    EXPECT_EQ(CheckNameConflict("a%sb", DashCate::Guest), 406);
    ExpectLines({"utils: [a%sb] name conflict."});
  }
  EXPECT_EQ(Platform().requested_names, (Strings{"guest/web", "host/web", "host/web", "guest/a%sb", "guest/a%sb"}));
}

TEST_F(Lookups, HostNames_Ids_AreOneEachInOrder) {
  Platform().names = {{"host/h1", "one"}, {"host/h2", ""}};
  for (const char* before : {"null", "5", R"(["old"])", R"({"a":1})"}) {
    Json::Value names = Parsed(before);
    GetHostNamesByIds({"h2", "gone", "h1", "h1"}, names);
    EXPECT_EQ(Text(names), R"(["","unknown","one","one"])");
  }
  Json::Value names = "old";
  GetHostNamesByIds({}, names);
  EXPECT_TRUE(names.isArray());
  EXPECT_TRUE(names.empty());
}

TEST_F(Lookups, RepositoryAndGuestNames_Each_UseTheirOwnCategory) {
  Platform().names = {{"repository/x", "disks"}, {"guest/x", "web"}, {"guest/g", "mail"}};
  std::string name = "untouched";
  EXPECT_FALSE(GetRepoNameById("g", name));
  EXPECT_EQ(name, "untouched");
  EXPECT_TRUE(GetRepoNameById("x", name));
  EXPECT_EQ(name, "disks");
  EXPECT_TRUE(GetGuestNameById("x", name));
  EXPECT_EQ(name, "web");
  EXPECT_FALSE(GetGuestNameById("disks", name));
}

TEST_F(Lookups, JsonArray_ContainsStringsOnly) {
  const Json::Value array = Parsed(R"([1,null,["a"],{"a":"b"},true,"x","x"])");
  EXPECT_TRUE(IsContain(array, "x"));
  for (const char* absent : {"1", "", "a", "b", "true", "null", "X", "x "}) EXPECT_FALSE(IsContain(array, absent));
  EXPECT_TRUE(IsContain(Parsed(R"(["a\u0000b"])"), std::string("a\0b", 3)));
  EXPECT_FALSE(IsContain(Parsed(R"(["a\u0000b"])"), "a"));
  EXPECT_TRUE(IsContain(Parsed(R"([""])"), ""));
}

TEST_F(Lookups, NotJsonArray_Contains_IsFalse) {
  for (const char* value : {"null", R"({"k":"x"})", R"("x")", "5", "true", "[]"}) {
    EXPECT_FALSE(IsContain(Parsed(value), "x")) << value;
    EXPECT_FALSE(IsContain(Parsed(value), "")) << value;
  }
}

TEST_F(Lookups, Vector_ContainsEqualElements) {
  EXPECT_TRUE(IsContain(Strings{"a", "x"}, "x"));
  EXPECT_FALSE(IsContain(Strings{"a", "x"}, "X"));
  EXPECT_FALSE(IsContain(Strings{}, ""));
}

TEST_F(Lookups, Join_EmptyElements_GetSeparatorOnlyAfterText) {
  const std::pair<const char*, const char*> kJoined[] = {
      {R"([])", ""},           {R"(["a"])", "a"},        {R"(["a","b"])", "a,b"}, {R"(["a","","b"])", "a,,b"},
      {R"(["","","a"])", "a"}, {R"(["","a",""])", "a,"}, {R"(["",""])", ""},      {R"(["a",1,"b"])", ""},
      {R"(["a",null])", ""},   {R"(["a",["b"]])", ""},   {R"({"a":"b"})", ""},    {"null", ""},
      {R"("a")", ""},
  };
  for (const auto& [array, joined] : kJoined) EXPECT_EQ(JoinJsArray(Parsed(array), ","), joined) << array;
  EXPECT_EQ(JoinJsArray(Parsed(R"(["a","b"])"), ""), "ab");
  EXPECT_EQ(JoinVecString({"a", "", "b"}, ","), "a,,b");
  EXPECT_EQ(JoinVecString({"", "", "a"}, ", "), "a");
  EXPECT_EQ(JoinVecString({"a", "b"}, ", "), "a, b");
  EXPECT_EQ(JoinVecString({}, ","), "");
}

TEST_F(Lookups, Concatenate_TwoArrays_AppendsSecondToFirst) {
  const Json::Value a = Parsed(R"([1,"x"])");
  EXPECT_EQ(Text(ConcatJsonArray(a, Parsed(R"([[2],{"k":3},null])"))), R"([1,"x",[2],{"k":3},null])");
  EXPECT_EQ(Text(ConcatJsonArray(a, a)), R"([1,"x",1,"x"])");
  EXPECT_EQ(Text(ConcatJsonArray(a, Parsed("[]"))), R"([1,"x"])");
  EXPECT_EQ(Text(ConcatJsonArray(Parsed("[]"), a)), R"([1,"x"])");
  EXPECT_EQ(Text(ConcatJsonArray(Json::Value(), a)), R"([1,"x"])");
  Json::Value spoiled = Parsed(R"([["x"]])");
  ForEachMutation(spoiled, [&] {
    ConcatJsonArray(spoiled, a);
    ConcatJsonArray(a, spoiled);
  });
}

TEST_F(Lookups, AllHosts_Listed_AreAppendedInOrder) {
  Platform().ids["host"] = {"h2", "h1"};
  Json::Value hosts;
  EXPECT_EQ(GetAllHosts(hosts), 0);
  EXPECT_EQ(Text(hosts), R"([{"host_id":"h2"},{"host_id":"h1"}])");
  EXPECT_EQ(GetAllHosts(hosts), 0);
  EXPECT_EQ(hosts.size(), 4u);
  hosts = "text";
  EXPECT_EQ(GetAllHosts(hosts), 0);
  EXPECT_EQ(hosts.size(), 2u);
}

TEST_F(Lookups, AllHosts_ListingFails_AppendsNothing) {
  Platform().ids["host"] = {"h1"};
  for (const int result : {2, -1, 1}) {
    Platform().category_results["host"] = {result};
    Json::Value hosts = "untouched";
    EXPECT_EQ(GetAllHosts(hosts), 403) << result;
    EXPECT_EQ(hosts, "untouched");
  }
  ExpectNoLine();
}

TEST_F(Lookups, NamesToIds_DuplicateName_LaterCounts) {
  AddGuest("g2", "web");
  AddGuest("g1", "mail");
  AddGuest("g0", "web");
  for (const int result : {0, 2}) {
    Platform().category_results["guest"] = {result};
    Names names = {{"old", "x"}};
    EXPECT_EQ(GetCateNameToIdMap(DashCate::Guest, names), 0);
    EXPECT_EQ(names, (Names{{"mail", "g1"}, {"web", "g0"}}));
  }
  Names names = {{"old", "x"}};
  EXPECT_EQ(GetCateNameToIdMap(DashCate::Repository, names), 0);
  EXPECT_TRUE(names.empty());
  ExpectNoLine();
}

TEST_F(Lookups, NamesToIds_ListingFails_ReturnsItsResult) {
  AddGuest("g", "web");
  for (const int result : {-1, -7, 1, 3}) {
    Platform().category_results["guest"] = {result};
    Names names = {{"old", "x"}};
    EXPECT_EQ(GetCateNameToIdMap(DashCate::Guest, names), result);
    EXPECT_TRUE(names.empty());
    ExpectLines({"utils: Failed to list all ids."});
  }
}

TEST_F(Lookups, NamesToIds_NamesUnreadable_ReturnsListingResultAndEmptyMap) {
  AddGuest("g", "web");
  AddGuest("g2", "mail");
  for (const int result : {0, 2}) {
    Platform().category_results["guest"] = {result};
    for (const std::size_t dropped : {0, 1}) {
      Platform().names_dropped = dropped;
      Platform().name_list_result = dropped == 0 ? -1 : 0;
      Names names = {{"old", "x"}};
      EXPECT_EQ(GetCateNameToIdMap(DashCate::Guest, names), result);
      EXPECT_TRUE(names.empty());
      ExpectLines({"utils: Failed to get name."});
    }
  }
  // Only a negative result is a failure.
  Platform().names_dropped = 0;
  Platform().name_list_result = 1;
  Names names;
  EXPECT_EQ(GetCateNameToIdMap(DashCate::Guest, names), 0);
  EXPECT_EQ(names.size(), 2u);
}

TEST_F(Lookups, IdByName_DuplicateName_LastCounts) {
  AddGuest("g2", "web");
  AddGuest("g1", "web");
  std::string id = "untouched";
  EXPECT_EQ(GetIdByName(DashCate::Guest, "web", id), 0);
  EXPECT_EQ(id, "g1");
  ExpectNoLine();
}

TEST_F(Lookups, IdByName_Fails_KeepsId) {
  AddGuest("g", "web");
  std::string id = "untouched";
  EXPECT_EQ(GetIdByName(DashCate::Guest, "We%nb", id), -2);
  ExpectLines({"utils: Cannot find id with name[We%nb] in category."});
  Platform().category_results["guest"] = {-1};
  EXPECT_EQ(GetIdByName(DashCate::Guest, "web", id), -1);
  ExpectLines({"utils: Failed to list all ids.", "utils: Failed to list category and get all name of it."});
  // A listing that fails with a positive result leaves an empty map, in which nothing is found.
  Platform().category_results["guest"] = {1};
  EXPECT_EQ(GetIdByName(DashCate::Guest, "web", id), -2);
  ExpectLines({"utils: Failed to list all ids.", "utils: Cannot find id with name[web] in category."});
  Platform().category_results["guest"] = {0};
  Platform().name_list_result = -1;
  EXPECT_EQ(GetIdByName(DashCate::Guest, "web", id), -2);
  ExpectLines({"utils: Failed to get name.", "utils: Cannot find id with name[web] in category."});
  EXPECT_EQ(id, "untouched");
}

// A caller may keep one variable for what goes in and what comes out.
TEST_F(Lookups, Lookups_OutputAliasesInput_IsReadFirst) {
  AddGuest("g1", "web");
  Platform().names["repository/r1"] = "disks";
  std::string text = "g1";
  EXPECT_TRUE(GetGuestNameById(text, text));
  EXPECT_EQ(text, "web");
  EXPECT_EQ(GetIdByName(DashCate::Guest, text, text), 0);
  EXPECT_EQ(text, "g1");
  text = "r1";
  EXPECT_TRUE(GetRepoNameById(text, text));
  EXPECT_EQ(text, "disks");
  text = VexaCCC::State::Guest::running;
  std::string type;
  GetStateType(STATE_CATE_GUEST, text, text, type);
  EXPECT_EQ(text + ", " + type, "running, healthy");
  UIState shown{VexaCCC::State::Guest::shutdown, ""};
  GetStateType(STATE_CATE_GUEST, shown.state, shown);
  EXPECT_EQ(shown.state + ", " + shown.type, "shutdown, healthy");
  Json::Value list = Parsed(R"([1,"x"])");
  list = ConcatJsonArray(list, list);
  EXPECT_EQ(Text(list), R"([1,"x",1,"x"])");
  Json::Value same = Parsed(R"({"ha_group_id":"","ha":{}})");
  std::string reason;
  GetGuestHAStateType(same, same, text, type, reason);
  EXPECT_EQ(Text(same), R"({"ha_group_id":""})");
  GetGuestHAStateType(same, same["ha_group_id"], text, type, reason);
  EXPECT_EQ(Text(same), R"({"ha_group_id":""})");
}

}  // namespace
}  // namespace vexa::test
