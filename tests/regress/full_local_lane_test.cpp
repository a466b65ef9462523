// Compound requests of a host to itself waited for threads of the lane that they had filled themselves.
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

TEST(FullLocalLane, AsManyCompoundRequestsAsThreads_AllGetTheirItems) {
  TestDaemon daemon([](vexa::daemon::Config& config) {
    config.long_threads = kThreads;
    config.calls_per_user = 1;  // of users, which this host is not to itself
  });
  std::barrier start(kCallers);
  std::atomic<int> whole = 0;
  const auto begun = std::chrono::steady_clock::now();
  {
    std::vector<std::jthread> callers;
    for (int i = 0; i < kCallers; ++i) {
      callers.emplace_back([&] {
        start.arrive_and_wait();
        const auto reply = VexaCCC::Sender::localhost().process(CompoundOfTwo());
        if (reply.isSuccess() && !reply.hasField("has_fail")) ++whole;
      });
    }
  }
  EXPECT_EQ(whole, kCallers);
  // An item that gets no thread costs its request 25 s.
  EXPECT_LT(std::chrono::steady_clock::now() - begun, std::chrono::seconds(20));
}

}  // namespace
