// What one commit of an import writes.
#include "host/guests/import/import_records.h"

#include <gtest/gtest.h>

#include "host/base/json_parse.h"
#include "tests/support/matchers.h"

namespace vexa::guests {
namespace {

domain_xml::ImportedGuest TwoDisksOneNic() {
  domain_xml::ImportedGuest guest;
  guest.id = "g";
  guest.guest["name"] = "web ü";
  guest.guest["autorun"] = 0;
  for (const char* id : {"d1", "d2"}) {
    Json::Value disk(Json::objectValue);
    disk["name"] = id;
    guest.disks.emplace_back(id, disk);
    guest.guest["vdisks"].append(id);
  }
  guest.nics.emplace_back("n1", Json::Value(Json::objectValue));
  guest.guest["vnics"].append("n1");
  return guest;
}

// Key and text of every operation; "-" for a deletion.
std::vector<std::pair<std::string, std::string>> Operations(const store::Transaction& transaction) {
  std::vector<std::pair<std::string, std::string>> result;
  for (const store::Operation& operation : transaction.operations) {
    result.emplace_back(operation.key, operation.text.value_or("-"));
  }
  return result;
}

TEST(ImportTransaction, Transaction_NewGuest_RequiresThatNoneExists) {
  const store::Transaction transaction = MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", true}, {});
  ASSERT_THAT(transaction.compares, SizeIs(7));
  EXPECT_EQ(transaction.compares[0].key, "/dash/guest/g/object");
  EXPECT_EQ(transaction.compares[0].revision, 0u);
  EXPECT_EQ(transaction.compares[1].key, "/dash/guest/g/state");
  EXPECT_EQ(transaction.compares[1].revision, 0u);
  EXPECT_EQ(transaction.compares[2].key, "/run/g");
  EXPECT_EQ(transaction.compares[3].key, "/deletion/g");
  EXPECT_EQ(transaction.compares[4].key, "/edit/g");
  EXPECT_EQ(transaction.compares[5].key, "/creation/g");
  EXPECT_EQ(transaction.compares[6].key, "/renames");
  EXPECT_THAT(
      Operations(transaction),
      ElementsAre(Pair("/dash/guest/g/object", R"({"autorun":0,"name":"web ü","vdisks":["d1","d2"],"vnics":["n1"]})"),
                  Pair("/dash/guest/g/domain", R"({"autostart":true,"xml":"<domain/>"})"), Pair("/files", R"("g")"),
                  Pair("/networks", R"("g")"), Pair("/renames", R"("g")"), Pair("/dash/guest/g/state", "-"),
                  Pair("/live/g", "-"), Pair("/dash/vdisk/d1/object", R"({"name":"d1"})"),
                  Pair("/dash/vdisk/d2/object", R"({"name":"d2"})"), Pair("/dash/vnic/n1/object", "{}")));
}

TEST(ImportTransaction, Transaction_ReplacedGuest_RemovesUnusedPartsAndKeepsSettingsNotInXml) {
  StoredGuest stored;
  stored.revision = 7;
  stored.live_revision = 9;
  stored.renames_revision = 11;
  stored.record = *ParseJson(R"({"name":"old","autorun":1,"ha_group_id":"h","desc":"gone",
                                 "vdisks":["d2","d3","d3",5,"theirs"],"vnics":["n1","n2"]})");
  stored.parts = {{"/dash/vdisk/d2/object", 20},
                  {"/dash/vdisk/d3/object", 21},
                  {"/dash/vdisk/d3/object", 21},
                  {"/dash/vnic/n1/object", 22},
                  {"/dash/vnic/n2/object", 23}};
  const store::Transaction transaction = MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", false}, stored);
  ASSERT_THAT(transaction.compares, SizeIs(9));
  EXPECT_EQ(transaction.compares[7].key, "/dash/vdisk/d3/object");
  EXPECT_EQ(transaction.compares[7].revision, 21u);
  EXPECT_EQ(transaction.compares[8].key, "/dash/vnic/n2/object");
  EXPECT_EQ(transaction.compares[8].revision, 23u);
  EXPECT_EQ(transaction.compares[0].revision, 7u);
  EXPECT_EQ(transaction.compares[1].revision, 9u);
  EXPECT_EQ(transaction.compares[6].revision, 11u);
  EXPECT_THAT(
      Operations(transaction),
      UnorderedElementsAre(
          Pair("/renames", R"("g")"), Pair("/files", R"("g")"), Pair("/networks", R"("g")"),
          Pair("/dash/guest/g/domain", R"({"autostart":false,"xml":"<domain/>"})"),
          Pair("/dash/guest/g/object",
               R"({"autorun":1,"ha_group_id":"h","name":"web ü","vdisks":["d1","d2"],"vnics":["n1"]})"),
          Pair("/dash/vdisk/d1/object", R"({"name":"d1"})"), Pair("/dash/vdisk/d2/object", R"({"name":"d2"})"),
          Pair("/dash/vdisk/d3/object", "-"), Pair("/dash/vnic/n1/object", "{}"), Pair("/dash/vnic/n2/object", "-")));
}

TEST(ImportTransaction, Transaction_StoredRecordOfWrongTypes_DeletesNothing) {
  for (const char* text : {"null", "[]", "5", R"({"vdisks":{"a":1},"vnics":"n"})"}) {
    StoredGuest stored;
    stored.revision = 3;
    stored.record = *ParseJson(text);
    EXPECT_THAT(MakeImportTransaction(TwoDisksOneNic(), {"<domain/>", false}, stored).operations, SizeIs(8)) << text;
  }
}

}  // namespace
}  // namespace vexa::guests
