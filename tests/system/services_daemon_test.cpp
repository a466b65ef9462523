// A running daemon as a host of the cluster: its record, and who may ask it what.
#include <gmock/gmock.h>

#include "host/api/api_table.h"
#include "host/store/lmdb_store.h"
#include "tests/support/test_daemon.h"
#include "webapi/platform/ccc.h"

namespace {

using vexa::test::ErrorCode;
using vexa::test::JsonBody;
using vexa::test::TestDaemon;

Json::Value HostsOf(vexa::test::HttpClient client) {
  return JsonBody(client.PostJson("/webapi/VEXA.Virtualization.Host/list", "{}"))["data"]["hosts"];
}

TEST(ServicesDaemon, HostsOwnRecord_IsThereWithTheFirstAnswer) {
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

TEST(ServicesDaemon, GracefulStop_IsSeenInTheRecord) {
  TestDaemon daemon;
  const std::string host_id = VexaCCC::DB::DBLocalhostID();
  ASSERT_TRUE(daemon.daemon().Stop(std::chrono::seconds(30)));
  std::string state;
  ASSERT_EQ(VexaCCC::DB::Dashboard(VexaCCC::DB::DashCate::Host, host_id).Get(state, "state"), 0);
  EXPECT_EQ(state, VexaCCC::State::Host::inaccessible);
}

TEST(ServicesDaemon, Users_ReachNoServiceOfHosts) {
  TestDaemon daemon;
  vexa::test::HttpClient admin = daemon.TcpAs("admin");
  for (const char* path : {"VEXA.Core.System.Utilization/get",
                           "VEXA.CCC.Cluster.Member/utilization_get",
                           "VEXA.Core.System/info",
                           "VEXA.Core.Storage.Volume/get",
                           "VEXA.CCC.VDisk/list",
                           "VEXA.Core.Network.Ethernet/get",
                           "VEXA.Core.Network.Bond/get",
                           "VEXA.Core.Network.Interface/list",
                           "VEXA.Core.Web.Orla/get",
                           "VEXA.CCC.Guest/get_info",
                           "VEXA.CCC.Guest/check_repo_cap",
                           "VEXA.CCC.Guest/check_resource",
                           "VEXA.CCC.Guest/set",
                           "VEXA.CCC.Guest/poweron",
                           "VEXA.CCC.Guest/shutdown",
                           "VEXA.CCC.Guest/reboot",
                           "VEXA.CCC.Guest/poweroff",
                           "VEXA.CCC.Guest/delete",
                           "VEXA.CCC.Guest/hostset",
                           "VEXA.Virtualization.Guest.Action/check_host_resource",
                           "VEXA.Virtualization.Cluster/clear_poll_task"}) {
    EXPECT_EQ(ErrorCode(admin.PostJson(std::string("/webapi/") + path, "{}")), 104) << path;
    EXPECT_EQ(ErrorCode(daemon.Tcp().PostJson(std::string("/webapi/") + path, "{}")), 103) << path;
  }
}

}  // namespace
