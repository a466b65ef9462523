// Texts of checks, and errors that are gathered by code.
#include <string>

#include "tests/unit/json/mutated_json.h"
#include "tests/unit/webapi/state_fixture.h"
#include "webapi/utils/utils.h"

namespace vexa::test {
namespace {

using VexaVirtualization::AppendError;
using VexaVirtualization::GetVMCheckText;
using VexaVirtualization::VMCHECK;

struct CheckRow {
  int code;
  const char* text;
};

void PrintTo(const CheckRow& row, std::ostream* out) { *out << row.code; }

class CheckTexts : public testing::TestWithParam<CheckRow> {};

TEST_P(CheckTexts, Code_HasItsText) {
  EXPECT_EQ(GetVMCheckText(static_cast<VMCHECK>(GetParam().code)), GetParam().text);
}

const CheckRow kCheckRows[] = {
    {301, "no_cpu_threads"},
    {302, "no_ram"},
    {305, "no_network"},
    {307, "host_offline"},
    {310, "no_cpu_threads_for_reservation"},
    {311, "efi_enabled"},
    {312, "cpu_compatible_mode_required"},
    {401, "hardware_incompatible"},
    {402, "sriov_enabled"},
    {100, "unknown[100]"},
    {300, "unknown[300]"},
    {303, "unknown[303]"},
    {304, "unknown[304]"},
    {306, "unknown[306]"},
    {308, "unknown[308]"},
    {309, "unknown[309]"},
    {313, "unknown[313]"},
    {400, "unknown[400]"},
    {403, "unknown[403]"},
    {0, "unknown[0]"},
    {-2, "unknown[-2]"},
    {2147483647, "unknown[2147483647]"},
    {-2147483647 - 1, "unknown[-2147483648]"},
};

INSTANTIATE_TEST_SUITE_P(All, CheckTexts, testing::ValuesIn(kCheckRows));

class Errors : public StateLibrary {
 protected:
  void ExpectErrors(std::string_view expected) const { EXPECT_EQ(Text(errors_), Text(Parsed(expected))); }
  // Both forms refuse what they are given, with nothing to add as well.
  void ExpectUsageReported() {
    AppendError("a", 5, errors_);
    ExpectLines({"utils: AppendError used in the wrong way"});
    AppendError("a", "x", 5, errors_);
    ExpectLines({"utils: AppendError2 used in the wrong way"});
    AppendError("", "", 5, errors_);
    ExpectLines({"utils: AppendError2 used in the wrong way"});
  }
  Json::Value errors_;
};

TEST_F(Errors, Messages_SameCode_AreJoined) {
  AppendError("vm1", 404, errors_);
  AppendError("vm2", 404, errors_);
  AppendError("vm3", 117, errors_);
  AppendError("zero", 0, errors_);
  AppendError("minus", -1, errors_);
  AppendError("least", -2147483647 - 1, errors_);
  ExpectErrors(R"({"404":["vm1, vm2"],"117":["vm3"],"0":["zero"],"-1":["minus"],"-2147483648":["least"]})");
  ExpectNoLine();
}

TEST_F(Errors, Message_Empty_IsAppended) {
  AppendError("a", 5, errors_);
  ExpectErrors(R"({"5":["a"]})");
  AppendError("b", 5, errors_);
  ExpectErrors(R"({"5":["a, b"]})");
  AppendError("", 5, errors_);
  ExpectErrors(R"({"5":["a, b, "]})");
  AppendError("", 6, errors_);
  ExpectErrors(R"({"5":["a, b, "],"6":[""]})");
}

TEST_F(Errors, Pairs_SameCode_AreJoinedHalfByHalf) {
  AppendError("a", "x", 5, errors_);
  AppendError("b", "", 5, errors_);
  ExpectErrors(R"({"5":["a, b","x"]})");
  AppendError("", "y", 5, errors_);
  ExpectErrors(R"({"5":["a, b","x, y"]})");
  AppendError("", "", 5, errors_);
  ExpectErrors(R"({"5":["a, b","x, y"]})");
}

TEST_F(Errors, Pair_FirstHalfEmpty_StartsWithSeparator) {
  AppendError("", "x", 7, errors_);
  AppendError("b", "y", 7, errors_);
  ExpectErrors(R"({"7":[", b","x, y"]})");
  AppendError("", "", 8, errors_);
  AppendError("a", "b", 8, errors_);
  ExpectErrors(R"({"7":[", b","x, y"],"8":[", a",", b"]})");
}

TEST_F(Errors, Array_Empty_IsReadAsEmptyStrings) {
  errors_ = Parsed(R"({"5":[],"6":[],"7":[]})");
  AppendError("a", 5, errors_);
  AppendError("a", "b", 6, errors_);
  AppendError("", "b", 7, errors_);
  ExpectErrors(R"({"5":[", a"],"6":[", a",", b"],"7":[null,", b"]})");
}

TEST_F(Errors, FormsMixed_OneMessageExtendsTheFirstHalf) {
  AppendError("a", "x", 5, errors_);
  AppendError("b", 5, errors_);
  ExpectErrors(R"({"5":["a, b","x"]})");
  AppendError("c", 6, errors_);
  AppendError("d", "y", 6, errors_);
  ExpectErrors(R"({"5":["a, b","x"],"6":["c, d",", y"]})");
}

TEST_F(Errors, Errors_MemberNotArray_IsUnchanged) {
  for (const char* member : {R"("text")", "null", "5", "true", R"({"0":"a"})"}) {
    errors_ = Json::Value(Json::objectValue);
    errors_["5"] = Parsed(member);
    const std::string before = Text(errors_);
    ExpectUsageReported();
    EXPECT_EQ(Text(errors_), before);
  }
}

TEST_F(Errors, Accumulator_Null_BecomesObject) {
  for (const char* before : {"null", "{}"}) {
    errors_ = Parsed(before);
    AppendError("a", 5, errors_);
    ExpectErrors(R"({"5":["a"]})");
    errors_ = Parsed(before);
    AppendError("a", "x", 5, errors_);
    ExpectErrors(R"({"5":["a","x"]})");
  }
  ExpectNoLine();
}

TEST_F(Errors, Accumulator_NotObject_IsUnchanged) {
  for (const char* before : {"5", "2.5", R"("text")", "[1]", R"(["5"])", "[]", "true"}) {
    errors_ = Parsed(before);
    ExpectUsageReported();
    ExpectErrors(before);
  }
}

TEST_F(Errors, ElementsOfAnyType_NeverThrow) {
  Json::Value good = Parsed(R"({"5":["a",["b"],{"c":1}]})");
  ForEachMutation(good, [&] {
    errors_ = good;
    AppendError("a", 5, errors_);
    AppendError("a", "x", 5, errors_);
    EXPECT_EQ(errors_.isObject(), good.isObject() || good.isNull());
  });
}

}  // namespace
}  // namespace vexa::test
