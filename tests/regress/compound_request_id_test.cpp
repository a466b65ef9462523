// Items of a compound request that ran on other threads had lost the request's id, so their log lines had no id.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "host/api/request_id.h"
#include "host/daemon/daemon.h"
#include "tests/support/require.h"
#include "tests/support/temp_dir.h"
#include "webapi/platform/ccc_senders.h"

namespace {

// Slow enough that several threads take part.
void ReturnRequestId(const vexa::api::Call& call) {
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  call.response->SetSuccess(Json::Value(std::string(vexa::api::CurrentRequestId())));
}

TEST(CompoundRequest, EveryItem_HasTheIdOfItsRequest) {
  const vexa::test::TempDir folder;
  vexa::daemon::Config config;
  config.data_directory = folder.File("data");
  config.socket = folder.File("s");
  config.listen.clear();
  config.hypervisor = "none";
  const auto daemon = vexa::test::Require(
      vexa::daemon::Daemon::Start(config, {{.api = "VEXA.Test",
                                            .method = "id",
                                            .version = 1,
                                            .access = vexa::api::Access::kHost,
                                            .lane = vexa::api::LaneKind::kQuick,
                                            .handler = ReturnRequestId,
                                            .summary = "The id of the request that the thread works for.",
                                            .parameters = {},
                                            .errors = {}}}));
  Json::Value item(Json::objectValue);
  item["api"] = "VEXA.Test";
  item["method"] = "id";
  Json::Value items(Json::arrayValue);
  for (int i = 0; i < 8; ++i) items.append(item);
  VexaDRCore::Request request;
  request.setAPI("VEXA.Entry.Request");
  request.setMethod("request");
  request.addParam("compound", items);
  const vexa::api::RequestIdScope scope("the-id");
  const VexaDRCore::Response response = VexaCCC::Sender::localhost().process(request);
  ASSERT_TRUE(response.isSuccess()) << response.getErrCode();
  const Json::Value results = response.getDataField("result");
  ASSERT_EQ(results.size(), 8u);
  for (const Json::Value& result : results) EXPECT_EQ(result["data"], Json::Value("the-id"));
  EXPECT_TRUE(daemon->Stop(std::chrono::seconds(30)));
}

}  // namespace
