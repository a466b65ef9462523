#include "host/records/guest_records.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <limits>

#include "host/records/run_record.h"
#include "host/store/key.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::test {
namespace {

using records::Guest;
using records::RunKey;
using std::chrono::seconds;
using std::chrono::system_clock;

// In the newest state.
Result<Guest> ReadGuest(const std::string& id) {
  const auto reader = records::Reader::OpenCurrent();
  if (!reader) return reader.error();
  return records::ReadGuest(*reader, id);
}

class GuestRecordsTest : public testing::Test {
 protected:
  void PutAt(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  records::StoredRun ReadRunOf(const std::string& text) {
    PutAt(RunKey("g"), text);
    const auto run = Require(records::ReadRun(host_.store(), "g"));
    EXPECT_TRUE(run.has_value());
    return run.value_or(records::StoredRun{});
  }

  TestHost host_;
};

TEST_F(GuestRecordsTest, Run_RoundTrip_IsEqual) {
  records::Run run;
  run.host_id = "host";
  run.since = system_clock::time_point(seconds(1'700'000'000));
  run.starting = true;
  run.vcpus = 4;
  run.memory_mib = 8192;
  run.pinned_cpus = {0, 5, 2};
  const records::StoredRun stored = ReadRunOf(records::SerializeRun(run));
  EXPECT_EQ(stored.run.host_id, "host");
  EXPECT_EQ(stored.run.since, run.since);
  EXPECT_TRUE(stored.run.starting);
  EXPECT_EQ(stored.run.vcpus, 4u);
  EXPECT_EQ(stored.run.memory_mib, 8192u);
  EXPECT_EQ(stored.run.pinned_cpus, run.pinned_cpus);
  EXPECT_GT(stored.revision, 0u);
}

TEST_F(GuestRecordsTest, ReadRun_Missing_IsNotError) {
  EXPECT_FALSE(Require(records::ReadRun(host_.store(), "g")).has_value());
  EXPECT_FALSE(Require(records::ReadRun(host_.store(), "")).has_value());
  EXPECT_FALSE(Require(records::ReadRun(host_.store(), std::string(1000, 'x'))).has_value());
  EXPECT_THAT(Require(records::RunsOf(host_.store(), "host")), testing::IsEmpty());
}

TEST_F(GuestRecordsTest, ReadRun_Damaged_ExistsWithoutHost) {
  for (const char* text : {"", "{", "[]", "7", "null", "\"host\"", "{}", R"({"host_id":7})", R"({"host_id":["h"]})",
                           R"({"host_id":null,"vcpus":2})"}) {
    const records::StoredRun stored = ReadRunOf(text);
    EXPECT_EQ(stored.run.host_id, "") << text;
    EXPECT_GT(stored.revision, 0u);
  }
}

TEST_F(GuestRecordsTest, ReadRun_WrongTypes_KeepsValidMembers) {
  const records::StoredRun stored = ReadRunOf(
      R"({"host_id":"host","since":"x","starting":[],"vcpus":-1,"memory_mib":1e300,"pinned_cpus":[1,"2",-3,{},1e99,7]})");
  EXPECT_EQ(stored.run.host_id, "host");
  EXPECT_EQ(stored.run.since, system_clock::time_point());
  EXPECT_FALSE(stored.run.starting);
  EXPECT_EQ(stored.run.vcpus, 0u);
  EXPECT_EQ(stored.run.memory_mib, 0u);
  // What is not the number of a processor dedicates none.
  EXPECT_THAT(stored.run.pinned_cpus, testing::ElementsAre(1u, 7u));
  EXPECT_THAT(ReadRunOf(R"({"host_id":"host","pinned_cpus":{"0":1}})").run.pinned_cpus, testing::IsEmpty());
}

TEST_F(GuestRecordsTest, ReadRun_ImpossibleTimes_AreClamped) {
  for (const char* since : {"9223372036854775807", "-9223372036854775808", "18446744073709551615", "1e18", "-1"}) {
    const records::Run run = ReadRunOf(R"({"host_id":"host","since":)" + std::string(since) + "}").run;
    EXPECT_GE(run.since, system_clock::time_point()) << since;
    EXPECT_LE(run.since, system_clock::time_point::max()) << since;
  }
}

TEST_F(GuestRecordsTest, RunsOf_Host_ReturnsOnlyItsRuns) {
  PutAt(RunKey("a"), R"({"host_id":"host","vcpus":1})");
  PutAt(RunKey("b/../c"), R"({"host_id":"host","vcpus":2})");
  PutAt(RunKey("d"), R"({"host_id":"other"})");
  PutAt(RunKey("e"), "damaged");
  PutAt(store::MakeKey({"run", "f", "below"}), R"({"host_id":"host"})");
  const auto runs = Require(records::RunsOf(host_.store(), "host"));
  ASSERT_EQ(runs.size(), 2u);
  EXPECT_EQ(runs[0].first, "a");
  EXPECT_EQ(runs[0].second.run.vcpus, 1u);
  EXPECT_EQ(runs[1].first, "b/../c");
  const auto nobodys = Require(records::RunsOf(host_.store(), ""));
  ASSERT_EQ(nobodys.size(), 1u) << "a damaged record is found under no host";
  EXPECT_EQ(nobodys[0].first, "e");
}

TEST_F(GuestRecordsTest, GuestRecords_StoreUnreadable_IsAnError) {
  host_.store().FailReadsOf(RunKey("g"));
  EXPECT_FALSE(records::ReadRun(host_.store(), "g").ok());
  host_.store().FailReadsOf(store::MakeKey({"run"}));
  EXPECT_FALSE(records::RunsOf(host_.store(), "host").ok());
  host_.store().FailSnapshots();
  EXPECT_FALSE(records::ReadRun(host_.store(), "other").ok());
  EXPECT_FALSE(ReadGuest("g").ok());
}

TEST_F(GuestRecordsTest, ReadGuest_Parts_AreInListedOrder) {
  host_.Put("guest", "g",
            Parsed(R"({"name":"web","host_id":"h","repository_id":"r","vdisks":["d2","d1"],"vnics":["n"]})"));
  host_.Put("vdisk", "d1", Parsed(R"({"size":1})"));
  host_.Put("vdisk", "d2", Parsed(R"({"size":2})"));
  host_.Put("vnic", "n", Parsed(R"({"mac_address":"02:00:00:00:00:01"})"));
  host_.Put("repository", "r", Parsed(R"({"host_id":"h2","state":"repo_online"})"));
  const Guest guest = Require(ReadGuest("g"));
  EXPECT_EQ(guest.records.id, "g");
  EXPECT_EQ(guest.records.guest["name"].asString(), "web");
  ASSERT_EQ(guest.records.disks.size(), 2u);
  EXPECT_EQ(guest.records.disks[0].first, "d2");
  EXPECT_EQ(guest.records.disks[0].second["size"].asInt(), 2);
  EXPECT_EQ(guest.records.disks[1].first, "d1");
  ASSERT_EQ(guest.records.nics.size(), 1u);
  EXPECT_EQ(guest.name, "web");
  EXPECT_EQ(guest.host_id, "h");
  EXPECT_EQ(guest.repository_id, "r");
  EXPECT_EQ(guest.repository_host_id, "h2");
  EXPECT_EQ(guest.repository_state, "repo_online");
}

TEST_F(GuestRecordsTest, ReadGuest_RepositoryWithoutRecord_HasEmptyMembers) {
  host_.Put("guest", "g", Parsed(R"({"repository_id":"r"})"));
  for (const char* text : {"", "{}", "[]", "{", R"({"host_id":7,"state":[]})"}) {
    if (*text != '\0') host_.PutText("repository", "r", text);
    const Guest guest = Require(ReadGuest("g"));
    EXPECT_EQ(guest.repository_id, "r");
    EXPECT_EQ(guest.repository_host_id, "") << text;
    EXPECT_EQ(guest.repository_state, "") << text;
  }
}

TEST_F(GuestRecordsTest, ReadGuest_WrongTypes_AreEmpty) {
  host_.Put("guest", "g", Parsed(R"({"name":7,"host_id":[],"repository_id":{},"vdisks":{"a":1},"vnics":"n"})"));
  const Guest guest = Require(ReadGuest("g"));
  EXPECT_EQ(guest.name, "");
  EXPECT_EQ(guest.host_id, "");
  EXPECT_EQ(guest.repository_id, "");
  EXPECT_THAT(guest.records.disks, testing::IsEmpty());
  EXPECT_THAT(guest.records.nics, testing::IsEmpty());
}

TEST_F(GuestRecordsTest, ReadGuest_MissingRecords_AreNotFound) {
  EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kNotFound);
  EXPECT_EQ(ReadGuest("").error().code(), ErrorCode::kNotFound);
  const std::map<std::string, std::string> missing = {{R"({"vdisks":["d"]})", "the guest's disk 'd'"},
                                                      {R"({"vdisks":[""]})", "the guest's disk ''"},
                                                      {R"({"vnics":["n"]})", "the guest's network interface 'n'"}};
  for (const auto& [text, what] : missing) {
    host_.PutText("guest", "g", text);
    EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kNotFound) << text;
    EXPECT_EQ(ReadGuest("g").error().ToString(), "There is no record of " + what);
  }
}

TEST_F(GuestRecordsTest, ReadGuest_DamagedRecords_AreCorrupt) {
  for (const char* text : {"", "{", "[]", "7", "\"x\""}) {
    host_.PutText("guest", "g", text);
    EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kCorrupt) << text;
  }
  host_.PutText("guest", "g", R"({"vdisks":["d"]})");
  host_.PutText("vdisk", "d", "[]");
  EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kCorrupt);
}

TEST_F(GuestRecordsTest, ReadGuest_InvalidListedIds_IsCorrupt) {
  for (const char* text : {R"({"vdisks":[7]})", R"({"vdisks":[null]})", R"({"vnics":[{}]})", R"({"vnics":[["n"]]})"}) {
    host_.PutText("guest", "g", text);
    EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kCorrupt) << text;
  }
}

TEST_F(GuestRecordsTest, ReadGuest_TooManyListed_IsCorrupt) {
  Json::Value guest(Json::objectValue);
  for (int i = 0; i < 10'000; ++i) guest["vdisks"].append("d");
  host_.Put("guest", "g", guest);
  host_.Put("vdisk", "d", Parsed("{}"));
  EXPECT_EQ(ReadGuest("g").error().code(), ErrorCode::kCorrupt);
}

}  // namespace
}  // namespace vexa::test
