// Guest::jsObject2vcGaRuleList: rules from JSON, whatever it is.
#include <tuple>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/guest_set_fixture.h"

namespace vexa::test {
namespace {

constexpr std::uint32_t kNoId = 0xFFFFFFFF;

// Kind, type, name, fourth text, id, allow.
using Rule = std::tuple<std::string, std::string, std::string, std::string, std::uint32_t, bool>;

std::vector<Rule> Rules(const Json::Value& privileges) {
  std::vector<Rule> rules;
  for (const auto& rule : VexaVirtualization::Guest::jsObject2vcGaRuleList(privileges)) {
    const auto& [kind, type, name, extra, id, allow] = rule;  // in the declared order
    rules.emplace_back(kind, type, name, extra, id, allow);
  }
  return rules;
}
std::vector<Rule> Rules(const char* text) { return Rules(Parsed(text)); }

TEST(GuestAdminRules, Rules_CompleteElement_IsUsed) {
  EXPECT_EQ(Rules(R"([{"uid":1026,"allow":true,"type":"use","name":"eve"}])"),
            (std::vector<Rule>{{"users", "use", "eve", "", 1026, true}}));
  EXPECT_EQ(Rules(R"([{"gid":100,"allow":false,"type":"use","name":"team"}])"),
            (std::vector<Rule>{{"groups", "use", "team", "", 100, false}}));
}

TEST(GuestAdminRules, Rules_UidAndGid_IsUser) {
  EXPECT_EQ(Rules(R"([{"gid":100,"uid":7}])"), (std::vector<Rule>{{"users", "", "", "", 7, false}}));
}

TEST(GuestAdminRules, Rules_EmptyElement_IsForGroup0) {
  EXPECT_EQ(Rules("[{}]"), (std::vector<Rule>{{"groups", "", "", "", 0, false}}));
}

TEST(GuestAdminRules, Rules_ElementNotObject_CountsAsEmpty) {
  for (const char* text : {"[null]", "[5]", "[\"uid\"]", "[true]", "[[]]", "[[{\"uid\":1}]]", "[2.5]"}) {
    EXPECT_EQ(Rules(text), (std::vector<Rule>{{"groups", "", "", "", 0, false}})) << text;
  }
}

TEST(GuestAdminRules, Rules_NotArray_AreEmpty) {
  for (const char* text : {"null", "{}", R"({"uid":1})", "5", "\"x\"", "true", "2.5", "[]"}) {
    EXPECT_TRUE(Rules(text).empty()) << text;
  }
}

TEST(GuestAdminRules, Rules_Array_KeepOrder) {
  EXPECT_EQ(Rules(R"([{"uid":3},{"gid":1},{"uid":2},{"uid":3}])"),
            (std::vector<Rule>{{"users", "", "", "", 3, false},
                               {"groups", "", "", "", 1, false},
                               {"users", "", "", "", 2, false},
                               {"users", "", "", "", 3, false}}));
}

struct IdRow {
  const char* value;
  std::uint32_t id;
};

// What cannot be converted has all bits set; it never becomes 0.
constexpr IdRow kIds[] = {
    {"0", 0},
    {"1", 1},
    {"4294967294", 4294967294u},
    {"4294967295", kNoId},
    {"4294967296", kNoId},
    {"18446744073709551615", kNoId},
    {"-1", kNoId},
    {"-2147483648", kNoId},
    {"-0.5", kNoId},
    {"2.5", 2},
    {"4294967296.0", kNoId},
    {"1e300", kNoId},
    {"-1e300", kNoId},
    {"\"1026\"", kNoId},
    {"\"\"", kNoId},
    {"\"root\"", kNoId},
    {"[]", kNoId},
    {"[1026]", kNoId},
    {"{}", kNoId},
    {"true", 1},
    {"false", 0},
    {"null", 0},  // as jsoncpp converts it, and as a missing one reads
};

TEST(GuestAdminRules, Rules_IdOutside32Bits_IsIgnored) {
  for (const IdRow& row : kIds) {
    for (const std::string kind : {"users", "groups"}) {
      const std::string member = kind == "users" ? "uid" : "gid";
      const auto rules = Rules(Parsed("[{\"" + member + "\":" + row.value + "}]"));
      EXPECT_EQ(rules, (std::vector<Rule>{{kind, "", "", "", row.id, false}})) << member << " " << row.value;
    }
  }
}

TEST(GuestAdminRules, Rules_InvalidUid_DoesNotFallBackToGid) {
  EXPECT_EQ(Rules(R"([{"uid":"x","gid":7}])"), (std::vector<Rule>{{"users", "", "", "", kNoId, false}}));
}

TEST(GuestAdminRules, Rules_Allow_IsReadAsBoolean) {
  const std::pair<const char*, bool> rows[] = {{"true", true}, {"false", false},     {"null", false},    {"0", false},
                                               {"1", true},    {"-3", true},         {"2.5", true},      {"0.0", false},
                                               {"[]", false},  {"{\"a\":1}", false}, {"\"true\"", false}};
  for (const auto& [value, allow] : rows) {
    EXPECT_EQ(Rules(Parsed(std::string("[{\"uid\":1,\"allow\":") + value + "}]")),
              (std::vector<Rule>{{"users", "", "", "", 1, allow}}))
        << value;
  }
}

TEST(GuestAdminRules, Rules_TypeAndName_AreReadAsStrings) {
  const std::pair<const char*, const char*> rows[] = {{"\"x\"", "x"},  {"5", "5"}, {"true", "true"},     {"null", ""},
                                                      {"[\"x\"]", ""}, {"{}", ""}, {"\"%s\\n\"", "%s\n"}};
  for (const auto& [value, text] : rows) {
    EXPECT_EQ(Rules(Parsed(std::string("[{\"type\":") + value + ",\"name\":" + value + "}]")),
              (std::vector<Rule>{{"groups", text, text, "", 0, false}}))
        << value;
  }
}

TEST(GuestAdminRules, Rules_AnyJson_IsConvertedWithoutChange) {
  Json::Value privileges = Parsed(R"([{"uid":1026,"gid":1,"allow":true,"type":"use","name":"eve"},{"gid":2}])");
  ForEachMutation(privileges, [&] {
    const std::string before = Text(privileges);
    EXPECT_EQ(Rules(privileges).size(), privileges.isArray() ? privileges.size() : 0u);
    EXPECT_EQ(Text(privileges), before);
  });
}

class GuestSetRights : public GuestSet {
 protected:
  static std::vector<Rule> Applied() {
    std::vector<Rule> rules;
    for (const auto& rule : Platform().guest_sets.at(0).second) {
      rules.emplace_back(rule.kind, rule.type, rule.name, rule.extra, rule.id, rule.allow);
    }
    return rules;
  }
};

TEST_F(GuestSetRights, Set_Rules_AreAppliedAfterHostAndNotForwarded) {
  ExpectEdited(Set(With(R"({"guest_privilege":[{"uid":7,"allow":true,"name":"eve"},{"gid":"x"}]})")));
  ExpectOrder("south", "{}");
  EXPECT_EQ(Applied(), (std::vector<Rule>{{"users", "", "eve", "", 7, true}, {"groups", "", "", "", kNoId, false}}));
  ExpectCalls({"name guest/" + kGuest, "send south/set", "guest_set " + kGuest, "log 3"});
}

TEST_F(GuestSetRights, Rights_NoRules_AreAppliedAnyway) {
  for (const char* members : {"{}", R"({"guest_privilege":[]})", R"({"desc":"x"})"}) {
    SetUp();
    ExpectEdited(Set(With(members)));
    EXPECT_TRUE(Applied().empty());
  }
}

TEST_F(GuestSetRights, Rules_Failure_NamesTheUsers) {
  Platform().guest_set_result = -1;
  Platform().guest_set_failures = {"eve", "%s", "team"};
  ExpectError(Set(With(R"({"name":"shop","guest_privilege":[{"uid":7}]})")), 1001);
  ExpectClusterLog(
      {{"root", 1,
        "Failed to configure permission settings for the user [eve,%s,team] on the virtual machine [web]."}});
  ExpectNoLine();
  EXPECT_EQ(Platform().sent.size(), 1u) << "the edit stays";
}

TEST_F(GuestSetRights, Rules_FailureWithoutNames_HasEmptyList) {
  Platform().guest_set_result = -5;
  ExpectError(Set(With("{}"), Role::kGranted), 1001);
  ExpectClusterLog(
      {{"eve", 1, "Failed to configure permission settings for the user [] on the virtual machine [web]."}});
}

TEST_F(GuestSetRights, Rules_PositiveResult_IsNotFailure) {
  Platform().guest_set_result = 1;
  Platform().guest_set_failures = {"eve"};
  ExpectEdited(Set(With("{}")));
}

}  // namespace
}  // namespace vexa::test
