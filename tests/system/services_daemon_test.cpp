// A running daemon as a host of the cluster: its record, and who may call which method.
#include <gmock/gmock.h>

#include "host/api/api_table.h"
#include "host/api/peer/compound_api.h"
#include "host/api/peer/services.h"
#include "host/store/lmdb_store.h"
#include "tests/support/test_daemon.h"
#include "webapi/platform/ccc.h"

namespace {

namespace api = vexa::api;
using vexa::test::ErrorCode;
using vexa::test::JsonBody;
using vexa::test::TestDaemon;

Json::Value HostsOf(vexa::test::HttpClient client) {
  return JsonBody(client.PostJson("/webapi/VEXA.Virtualization.Host/list", "{}"))["data"]["hosts"];
}

TEST(ServicesDaemon, Start_HostRecord_ExistsBeforeFirstReply) {
  TestDaemon daemon;
  const Json::Value hosts = HostsOf(daemon.TcpAs("mallory"));
  ASSERT_EQ(hosts.size(), 1u);
  EXPECT_EQ(hosts[0]["host_id"], VexaCCC::DB::DBLocalhostID());
  EXPECT_EQ(hosts[0]["state"], "running");
  Json::Value record;
  ASSERT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, VexaCCC::DB::DBLocalhostID()).Get(record, "object"), 0);
  EXPECT_FALSE(record.isMember("cluster_address")) << "nobody can reach it without a listener for other hosts";
  EXPECT_GT(record["cpu_cores"].asInt(), 0);
}

TEST(ServicesDaemon, HostRecord_GracefulStop_IsRecorded) {
  TestDaemon daemon;
  const std::string host_id = VexaCCC::DB::DBLocalhostID();
  ASSERT_TRUE(daemon.daemon().Stop(std::chrono::seconds(30)));
  std::string state;
  ASSERT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, host_id).Get(state, "state"), 0);
  EXPECT_EQ(state, VexaCCC::State::Host::inaccessible);
}

TEST(ServicesDaemon, HostMethods_CalledByUsers_AreRefused) {
  TestDaemon daemon;
  vexa::test::HttpClient admin = daemon.TcpAs("admin");
  std::vector<api::ApiRow> rows = api::ServiceRows({});
  for (api::ApiRow& row : api::CompoundRows({})) rows.push_back(std::move(row));
  EXPECT_GE(rows.size(), 22u);
  for (const api::ApiRow& row : rows) {
    EXPECT_EQ(row.access.value, api::Access::kHost) << row.api << " " << row.method;
    const std::string path = "/webapi/" + std::string(row.api) + "/" + std::string(row.method);
    EXPECT_EQ(ErrorCode(admin.PostJson(path, "{}")), 104) << path;
    EXPECT_EQ(ErrorCode(daemon.Tcp().PostJson(path, "{}")), 103) << path;
  }
}

}  // namespace
