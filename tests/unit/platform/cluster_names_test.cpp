// Names and states of the cluster's objects, looked up by other code.
#include <gtest/gtest.h>

#include "host/records/request_scope.h"
#include "host/store/key.h"
#include "tests/support/test_host.h"
#include "webapi/platform/ccc.h"

namespace {

using vexa::test::TestHost;
using VexaCCC::DB::DashCate;
namespace utils = VexaCCC::Utils;

class ClusterNames : public testing::Test {
 protected:
  void PutKey(std::initializer_list<std::string_view> key, const std::string& text) {
    ASSERT_TRUE(host_.store().Commit({{}, {{vexa::store::MakeKey(key), text}}}).ok());
  }
  int Conflict(const std::string& name) { return utils::CheckNameConflict(name, DashCate::Guest); }

  TestHost host_;
};

TEST_F(ClusterNames, Conflict_IsTheExactNameInTheCategory) {
  host_.PutText("guest", "g1", R"({"name":"web","desc":"db"})");
  host_.PutText("guest", "g2", R"({"name":"Web server"})");
  host_.PutText("vnic", "n", R"({"name":"other"})");
  EXPECT_GT(Conflict("web"), 0);
  EXPECT_GT(Conflict("Web server"), 0);
  for (const char* name : {"db", "WEB", "web ", " web", "we", "server", "other", "name", "", "g1"}) {
    EXPECT_EQ(Conflict(name), 0) << name;
  }
  EXPECT_GT(utils::CheckNameConflict("other", DashCate::vNic), 0);
  EXPECT_EQ(utils::CheckNameConflict("web", DashCate::vNic), 0);
}

TEST_F(ClusterNames, Conflict_NameWithEscapes_IsFound) {
  const std::string names[] = {
      "a\"b", "a\\b", "a/b", "../x", "line\nbreak", {"nul\0l", 5}, "100%", "%s%n", "ü€😀", std::string(1 << 20, 'n'),
      "",     "\t"};
  for (const std::string& name : names) {
    EXPECT_EQ(Conflict(name), 0);
    Json::Value record(Json::objectValue);
    record["name"] = name;
    record["desc"] = "two\nlines";
    host_.Put("guest", "g", record);
    EXPECT_GT(Conflict(name), 0) << name.substr(0, 20);
    host_.Remove("guest", "g");
  }
  host_.PutText("guest", "g", R"({"\u006eame":"\u0077eb\/1"})");
  EXPECT_GT(Conflict("web/1"), 0);
  EXPECT_EQ(Conflict("web/2"), 0);
  host_.PutText("guest", "g", R"({"name":"a\u002fb\u0041"})");
  EXPECT_GT(Conflict("a/bA"), 0);
}

TEST_F(ClusterNames, Conflict_NameNotString_IsIgnored) {
  int number = 0;
  for (const char* record :
       {R"({"name":7,"x":"7"})", R"({"name":["web"]})", R"({"name":{"name":"web"}})", R"(["web"])", R"("web")",
        R"({"name":null,"y":"web"})", R"({"sub":{"name":"web"}})", R"({"name":"web")", R"(\{"name":"web"})"}) {
    host_.PutText("guest", "g" + std::to_string(number++), record);
  }
  EXPECT_EQ(Conflict("web"), 0);
  EXPECT_EQ(Conflict("7"), 0);
  host_.PutText("guest", "zz", R"({"name":"web"})");
  EXPECT_GT(Conflict("web"), 0) << "damaged records do not hide the others";
}

TEST_F(ClusterNames, Conflict_SeparateNameKey_IsUsed) {
  host_.PutText("guest", "g", R"({"name":"old"})");
  PutKey({"dash", "guest", "g", "name"}, R"("new")");
  PutKey({"dash", "guest", "g", "notes", "name"}, R"("note")");
  PutKey({"dash", "guest", "g", "notes", "object"}, R"({"name":"deep"})");
  PutKey({"dash", "guest"}, R"({"name":"folder"})");
  PutKey({"dash", "guest", "flat"}, R"({"name":"flat"})");
  EXPECT_GT(Conflict("new"), 0);
  for (const char* name : {"old", "note", "deep", "folder", "flat"}) EXPECT_EQ(Conflict(name), 0) << name;
  std::string name;
  EXPECT_EQ(utils::GetNameById(DashCate::Guest, "g", name), 0);
  EXPECT_EQ(name, "new") << "as the look-up by id";
  host_.PutText("guest", "h", R"({"name":"old"})");
  EXPECT_GT(Conflict("old"), 0) << "of another guest";
}

TEST_F(ClusterNames, Conflict_InRequest_UsesItsSnapshot) {
  const vexa::records::RequestScope scope;
  EXPECT_EQ(Conflict("web"), 0);
  host_.PutText("guest", "g", R"({"name":"web"})");
  EXPECT_EQ(Conflict("web"), 0);
  { const vexa::records::RequestPause pause; }
  EXPECT_GT(Conflict("web"), 0);
}

TEST_F(ClusterNames, NameConflict_Unknown_IsNegative) {
  host_.PutText("guest", "g", R"({"name":"web"})");
  host_.store().FailReadsOf("/dash/guest");
  EXPECT_LT(Conflict("web"), 0);
  host_.store().Heal();
  host_.store().FailSnapshots();
  EXPECT_LT(Conflict("free"), 0);
}

TEST_F(ClusterNames, HostName_KnownOrUnknown_IsReadOrKept) {
  host_.PutText("host", "h", R"({"name":"alpha"})");
  std::string name = "before";
  EXPECT_FALSE(utils::GetHostNameById("none", name));
  EXPECT_FALSE(utils::GetHostNameById("", name));
  EXPECT_FALSE(utils::GetHostNameById("../host/h", name));
  host_.PutText("host", "odd", R"({"name":7})");
  EXPECT_FALSE(utils::GetHostNameById("odd", name));
  EXPECT_EQ(name, "before");
  EXPECT_TRUE(utils::GetHostNameById("h", name));
  EXPECT_EQ(name, "alpha");
}

TEST_F(ClusterNames, NameList_Ids_AreInOrderOrAllFail) {
  host_.PutText("guest", "a", R"({"name":"one"})");
  host_.PutText("guest", "b", R"({"name":"two"})");
  host_.PutText("guest", "bad", R"({"name":["x"]})");
  host_.PutText("guest", "damaged", "{");
  std::vector<std::string> names{"before"};
  EXPECT_EQ(utils::GetNameList(DashCate::Guest, {"b", "a", "b"}, names), 0);
  EXPECT_EQ(names, (std::vector<std::string>{"two", "one", "two"}));
  host_.PutText("guest", "apart", R"({"name":"old"})");
  PutKey({"dash", "guest", "apart", "name"}, R"("new")");
  PutKey({"dash", "guest", "odd", "name"}, "7");
  host_.PutText("guest", "odd", R"({"name":"old"})");
  std::vector<std::string> apart;
  EXPECT_EQ(utils::GetNameList(DashCate::Guest, {"apart"}, apart), 0);
  EXPECT_EQ(apart, std::vector<std::string>{"new"});
  for (const char* id : {"none", "bad", "damaged", "odd"}) {
    EXPECT_LT(utils::GetNameList(DashCate::Guest, {"a", id}, names), 0) << id;
  }
  host_.store().FailReadsOf(TestHost::ObjectKey("guest", "b"));
  EXPECT_LT(utils::GetNameList(DashCate::Guest, {"a", "b"}, names), 0);
  EXPECT_EQ(names.size(), 3u) << "untouched";
  EXPECT_EQ(utils::GetNameList(DashCate::Guest, {}, names), 0);
  EXPECT_TRUE(names.empty());
}

TEST(ClusterStates, IsGuestStateOnline_StatesOnAHost_AreOnline) {
  namespace s = VexaCCC::State::Guest;
  for (const char* state : {s::running, s::booting, s::shutting_down, s::moving, s::stor_migrating}) {
    EXPECT_TRUE(utils::IsGuestStateOnline(state)) << state;
  }
  for (const char* state :
       {s::creating, s::importing, s::shutdown, s::preparing, s::ha_standby, s::saved, s::inaccessible, s::crashed,
        s::unknown, s::freeze, "", "running", "guest_running ", VexaCCC::State::Host::running}) {
    EXPECT_FALSE(utils::IsGuestStateOnline(state)) << state;
  }
}

TEST(ClusterStates, FindInContainer_NotArrayOfStrings_IsFalse) {
  using vexa::test::Parsed;
  EXPECT_TRUE(utils::IsFindInSTLContainer(Parsed(R"(["a",1,null,"b"])"), "b"));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Parsed(R"(["a",1,null,["c"]])"), "1"));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Parsed(R"(["a",["c"]])"), "c"));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Parsed(R"([null])"), ""));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Parsed(R"({"b":"b"})"), "b"));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Json::Value("b"), "b"));
  EXPECT_FALSE(utils::IsFindInSTLContainer(Json::Value(), ""));
  EXPECT_TRUE(utils::IsFindInSTLContainer(Parsed(R"(["a\u0000b"])"), std::string("a\0b", 3)));
}

}  // namespace
