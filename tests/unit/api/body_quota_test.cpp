#include "host/api/body_quota.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace vexa::api {
namespace {

const JobOwner kAnn{"ann"};
constexpr std::size_t kBytes = kSmallBodyBytes + 1;  // the fewest that are counted

TEST(BodyQuota, Owner_WithoutBodies_MayHaveOneOfAnySize) {
  BodyQuota quota;
  const auto large = quota.Take(kAnn, kBodyBytesPerCaller + 1);
  ASSERT_NE(large, nullptr);
  EXPECT_EQ(quota.Take(kAnn, kBytes), nullptr);
  EXPECT_NE(quota.Take(kAnn, kSmallBodyBytes), nullptr) << "small ones are always admitted";
  EXPECT_NE(quota.Take({"bob"}, kBytes), nullptr);
}

TEST(BodyQuota, Share_DestroyedOrSmaller_MakesRoom) {
  BodyQuota quota;
  auto first = quota.Take(kAnn, kBodyBytesPerCaller - kBytes);
  auto second = quota.Take(kAnn, kBytes);
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(quota.Take(kAnn, kBytes), nullptr);
  second.reset();
  EXPECT_NE(quota.Take(kAnn, kBytes), nullptr);
  EXPECT_TRUE(first->Resize(kBytes));
  const auto third = quota.Take(kAnn, kBodyBytesPerCaller - kBytes);
  EXPECT_NE(third, nullptr);
  EXPECT_FALSE(first->Resize(kBytes + 1));
  EXPECT_TRUE(first->Resize(kBytes)) << "a refusal changes nothing";
  first.reset();
  EXPECT_FALSE(quota.Take(kAnn, kBytes)->Resize(kBytes + 1));
}

TEST(BodyQuota, Host_BodiesOfItsUsers_CountTogether) {
  BodyQuota quota;
  std::vector<std::unique_ptr<BodyQuota::Share>> shares;
  for (std::size_t i = 0; i < kBodyBytesPerHost / kBodyBytesPerCaller; ++i) {
    shares.push_back(quota.Take({"h/" + std::to_string(i), "h"}, kBodyBytesPerCaller));
    ASSERT_NE(shares.back(), nullptr);
  }
  EXPECT_EQ(quota.Take({"h/invented", "h"}, kBytes), nullptr);
  EXPECT_NE(quota.Take({"other/ann", "other"}, 1), nullptr);
  EXPECT_NE(quota.Take(kAnn, 1), nullptr);
  shares.pop_back();
  EXPECT_NE(quota.Take({"h/invented", "h"}, kBytes), nullptr);
}

TEST(BodyQuota, Share_OutlivesTheQuota_IsHarmless) {
  auto quota = std::make_unique<BodyQuota>();
  const auto share = quota->Take(kAnn, 1);
  quota.reset();
  EXPECT_TRUE(share->Resize(2));
}

TEST(BodyQuota, ManyThreads_NeverHaveMoreThanTheLimit) {
  BodyQuota quota;
  constexpr std::size_t kQuarter = kBodyBytesPerCaller / 4;
  std::atomic<int> held = 0;
  std::atomic<bool> too_many = false;
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 8; ++i) {
      threads.emplace_back([&] {
        for (int round = 0; round < 2000; ++round) {
          const auto share = quota.Take(kAnn, kQuarter);
          if (!share) continue;
          if (++held > 4) too_many = true;
          --held;
        }
      });
    }
  }
  EXPECT_FALSE(too_many);
  EXPECT_NE(quota.Take(kAnn, kBodyBytesPerCaller), nullptr) << "everything was given back";
}

}  // namespace
}  // namespace vexa::api
