#include "host/api/schema.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "host/api/bad_parameter.h"
#include "host/api/method_schema.h"
#include "host/api/openapi.h"
#include "host/api/schema_example.h"
#include "host/api/user/schemas/user_schemas.h"
#include "tests/support/test_host.h"

namespace {

using namespace vexa::api;
using namespace vexa::api::shape;
using vexa::test::Parsed;

Schema Guest() {
  const Schema disk = Object({Sometimes("size_gib", Integer("Its size.").In("GiB").From(1).To(64)),
                              Sometimes("format", String("Its format.").OneOf({"qcow2", "raw"}))});
  return Object({Always("name", String("Its name.")), Sometimes("vcpu_num", Integer("CPUs.").From(1).To(512)),
                 Sometimes("disks", List(disk, "Its disks.").To(2)), Sometimes("host", Id("Its host.").OrNull()),
                 Sometimes("sizes", MapOf(Integer("A size.").From(0), "By path.")),
                 Sometimes("anything", Any("As it is."))});
}

ApiRow RowWith(std::vector<Parameter> parameters) {
  return {.api = "VEXA.A",
          .method = "get",
          .version = 1,
          .access = Access::kUser,
          .lane = LaneKind::kQuick,
          .handler = {},
          .summary = "A method.",
          .parameters = std::move(parameters),
          .errors = {401}};
}

TEST(Schema, JsonSchema_EachProperty_IsThere) {
  const Json::Value schema = ToJsonSchema(Guest());
  EXPECT_EQ(schema["type"], "object");
  EXPECT_EQ(schema["required"], Parsed(R"(["name"])"));
  const Json::Value& disks = schema["properties"]["disks"];
  EXPECT_EQ(disks["maxItems"], 2);
  EXPECT_EQ(
      disks["items"]["properties"]["size_gib"],
      Parsed(R"({"type":"integer","description":"Its size. Unit: GiB.","x-unit":"GiB","minimum":1,"maximum":64})"));
  EXPECT_EQ(disks["items"]["properties"]["format"]["enum"], Parsed(R"(["qcow2","raw"])"));
  EXPECT_EQ(schema["properties"]["host"],
            Parsed(R"({"type":["string","null"],"format":"uuid","description":"Its host."})"));
  EXPECT_EQ(schema["properties"]["sizes"]["additionalProperties"]["minimum"], 0);
  EXPECT_FALSE(schema["properties"]["anything"].isMember("type"));
}

TEST(Schema, Misfits_EachKind_NameValueAndWhatItShouldBe) {
  const std::pair<const char*, const char*> rows[] = {
      {R"({})", "'guest.name' is missing"},
      {R"({"name":7})", "'guest.name' is not a string: it is a number"},
      {R"({"name":null})", "'guest.name' is not a string: it is null"},
      {R"({"name":"a","vcpu_num":0})", "'guest.vcpu_num' is not an integer from 1 to 512: it is 0"},
      {R"({"name":"a","vcpu_num":1.5})", "'guest.vcpu_num' is not an integer: it is a number"},
      {R"({"name":"a","vcpu_num":18446744073709551615})",
       "'guest.vcpu_num' is not an integer from 1 to 512: it is 18446744073709551615"},
      {R"({"name":"a","disks":[{},{"size_gib":65}]})",
       "'guest.disks[1].size_gib' is not an integer from 1 to 64 (GiB): it is 65"},
      {R"({"name":"a","disks":[{},{},{}]})",
       "'guest.disks' is not a list with a number of elements of at most 2: it has 3"},
      {R"({"name":"a","disks":[{"format":"vdi"}]})", "'guest.disks[0].format' is not 'qcow2' or 'raw': it is 'vdi'"},
      {R"({"name":"a","disks":{}})", "'guest.disks' is not a list: it is an object"},
      {R"({"name":"a","host":"nas"})", "'guest.host' is not a UUID: it is 'nas'"},
      {R"({"name":"a","sizes":{"/a":-1}})", "'guest.sizes./a' is not an integer of at least 0: it is -1"}};
  for (const auto& [value, sentence] : rows) EXPECT_EQ(DescribeMisfit(Guest(), Parsed(value), "guest"), sentence);
  const char* const fits =
      R"({"name":"a","vcpu_num":512,"disks":[{"size_gib":1}],"host":null,"sizes":{"/a":0},"anything":[1,null]})";
  EXPECT_EQ(DescribeMisfit(Guest(), Parsed(fits), "guest"), "");
}

TEST(Schema, UnknownMembers_AtAnyDepth_AreFoundWithTheNearestKnownOne) {
  struct Row {
    const char* value;
    const char* path;
    const char* suggestion;
  };
  const Row rows[] = {{R"({"vcpus":8})", "vcpus", "vcpu_num"},
                      {R"({"disks":[{},{"sizee_gib":1}]})", "disks[1].sizee_gib", "disks[1].size_gib"},
                      {R"({"entirely_different":1})", "entirely_different", ""}};
  for (const Row& row : rows) {
    const auto unknown = FindUnknownMember(Guest(), Parsed(row.value));
    ASSERT_TRUE(unknown) << row.value;
    EXPECT_EQ(unknown->path, row.path);
    EXPECT_EQ(unknown->suggestion, row.suggestion);
  }
  const char* const known = R"({"name":"a","disks":[{"size_gib":1}],"sizes":{"x":1},"anything":{"x":{"y":1}}})";
  EXPECT_FALSE(FindUnknownMember(Guest(), Parsed(known)));
}

TEST(Schema, WrongReplies_MisfitOrUnknownMember_AreDescribed) {
  const Schema schema = Object({Always("name", String("A name."))});
  EXPECT_EQ(DescribeWrongReply(schema, Parsed(R"({"name":"a"})")), "");
  EXPECT_EQ(DescribeWrongReply(schema, Parsed(R"({"name":1})")), "'data.name' is not a string: it is a number");
  EXPECT_EQ(DescribeWrongReply(schema, Parsed(R"({"name":"a","more":1})")), "'more' is not described");
  EXPECT_EQ(DescribeWrongReply(Null(), Parsed("null")), "");
  EXPECT_EQ(DescribeWrongReply(schema, Parsed("null")), "'data' is not an object: it is null");
}

TEST(Schema, Parameters_OfRow_HaveTypeAndDescriptionOfRowAndTheRestOfSchema) {
  const ApiTable table(WithSchemas({RowWith({{"size", ParameterType::kInteger, Necessity::kRequired, "A size."}})},
                                   {{"VEXA.A", "get", {{"size", Schema().In("MiB").From(1).To(9)}}, Null()}}));
  const Schema& size = table.rows().front().request.members.at(0).schema;
  EXPECT_EQ(size.type, ValueType::kInteger);
  EXPECT_EQ(size.description, "A size.");
  EXPECT_EQ(size.maximum, 9);
  EXPECT_EQ(DescribeBadParameter(table.rows().front(), Parsed(R"({"size":10})")),
            "The parameter 'size' is not an integer from 1 to 9 (MiB): it is 10");
  EXPECT_EQ(DescribeBadParameter(table.rows().front(), Parsed("{}")), "The parameter 'size' is missing");
}

TEST(Schema, ParameterWithoutRow_IsProgrammingError) {
  const std::vector<MethodSchema> schemas = {{"VEXA.A", "get", {{"size", Schema()}}, Null()}};
  EXPECT_THROW((void)WithSchemas({RowWith({})}, schemas), std::logic_error);
}

TEST(UnknownParameters, EachKind_AreNamedInOneSentence) {
  const ApiTable table({RowWith({{"guest_id", ParameterType::kString, Necessity::kRequired, "An id."},
                                 {"name", ParameterType::kString, Necessity::kOptional, "A name."}})});
  const ApiRow& row = table.rows().front();
  EXPECT_EQ(DescribeUnknownParameter(row, Parsed(R"({"guest_id":"","name":""})")), "");
  EXPECT_EQ(DescribeUnknownParameter(row, Parsed(R"({"guest":""})")),
            "There is no parameter 'guest'; did you mean 'guest_id'?");
  EXPECT_EQ(DescribeUnknownParameter(row, Parsed(R"({"zzzzzzz":1})")),
            "There is no parameter 'zzzzzzz'. The method has 'guest_id', 'name'");
  const ApiTable without({RowWith({})});
  EXPECT_EQ(DescribeUnknownParameter(without.rows().front(), Parsed(R"({"x":1})")),
            "There is no parameter 'x'. The method has no parameters");
  EXPECT_EQ(DescribeUnknownParameter(without.rows().front(), Parsed("{}")), "");
}

TEST(UnknownParameters, ControlCharacters_AreNotRepeated) {
  const ApiTable table({RowWith({{"name", ParameterType::kString, Necessity::kOptional, "A name."}})});
  const std::string sentence = DescribeUnknownParameter(table.rows().front(), Parsed("{\"a\\nb\\u0000c\":1}"));
  EXPECT_EQ(sentence.find('\n'), std::string::npos);
  EXPECT_EQ(sentence.find('\0'), std::string::npos);
}

// The memory and the disks have other units in requests than in replies; both say so.
TEST(UserSchemas, Units_OfMemoryAndDisks_AreSaidAtBothPlaces) {
  const auto find = [](std::string_view method) {
    for (const MethodSchema& each : UserSchemas()) {
      if (each.api == "VEXA.Virtualization.Guest" && each.method == method) return each;
    }
    return MethodSchema{};
  };
  const Schema stored = find("get").reply;
  EXPECT_EQ(FindMember(stored, "vram_size")->schema.unit, "KiB");
  EXPECT_NE(FindMember(stored, "vram_size")->schema.description.find("in MiB"), std::string::npos);
  const Schema disk = FindMember(stored, "vdisks")->schema.elements.at(0);
  EXPECT_EQ(FindMember(disk, "size")->schema.unit, "MiB");
  EXPECT_NE(FindMember(disk, "size")->schema.description.find("in GiB"), std::string::npos);
  for (const ParameterSchema& parameter : find("set").parameters) {
    if (parameter.name == "vram_size") {
      EXPECT_EQ(parameter.schema.unit, "MiB");
    }
    if (parameter.name != "vdisks_add") continue;
    const Schema added = parameter.schema.elements.at(0);
    EXPECT_EQ(FindMember(added, "vdisk_size")->schema.unit, "GiB");
    EXPECT_NE(FindMember(added, "vdisk_size")->schema.description.find("in MiB"), std::string::npos);
  }
}

TEST(UserSchemas, Examples_OfReplies_FitTheirSchemas) {
  EXPECT_GT(UserSchemas().size(), 60U);
  for (const MethodSchema& method : UserSchemas()) {
    for (const Optionals optionals : {Optionals::kAll, Optionals::kRequiredOnly}) {
      EXPECT_EQ(DescribeWrongReply(method.reply, ExampleOf(method.reply, optionals)), "")
          << method.api << " " << method.method;
    }
  }
}

}  // namespace
