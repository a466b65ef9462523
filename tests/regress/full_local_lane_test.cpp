// Compound requests of a host to itself waited for free threads of a lane whose threads they occupied themselves.
#include <gtest/gtest.h>

#include <atomic>
#include <barrier>
#include <chrono>
#include <thread>
#include <vector>

#include "tests/support/test_daemon.h"
#include "webapi/platform/ccc_senders.h"

namespace {

using vexa::test::TestDaemon;

constexpr int kThreads = 2;   // of each elastic lane
constexpr int kCallers = 16;  // more than all lanes together have

VexaDRCore::Request CompoundOfTwo() {
  Json::Value item(Json::objectValue);
  item["api"] = "VEXA.Test";
  item["method"] = "host";
  Json::Value items(Json::arrayValue);
  items.append(item);
  items.append(item);
  VexaDRCore::Request request;
  request.setAPI("VEXA.Entry.Request");
  request.setMethod("request");
  request.addParam("compound", items);
  return request;
}

TEST(FullLocalLane, CompoundRequests_OnePerThread_AllFinish) {
  TestDaemon daemon([](vexa::daemon::Config& config) {
    config.long_threads = kThreads;
    config.calls_per_user = 1;  // must not limit the host's requests to itself
  });
  std::barrier start(kCallers);
  std::atomic<int> complete = 0;
  const auto start_time = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&] {
        start.arrive_and_wait();
        const auto reply = VexaCCC::Sender::localhost().process(CompoundOfTwo());
        if (reply.isSuccess() && !reply.hasField("has_fail")) ++complete;
      });
    }
  }
  EXPECT_EQ(complete, kCallers);
  // A request with an item that gets no thread takes 25 s.
  EXPECT_LT(std::chrono::steady_clock::now() - start_time, std::chrono::seconds(20));
}

}  // namespace
