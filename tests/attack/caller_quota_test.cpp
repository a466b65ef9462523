// The attacker has the login of a user without any rights, and as many connections as an address may have.
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "host/base/mutex.h"
#include "tests/attack/attack.h"
#include "tests/attack/attacked_host.h"
#include "tests/support/check.h"
#include "webapi/error_codes.h"

namespace vexa::test {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kAttackers = 100;  // connections, each used without a pause
constexpr int kCalls = 400;      // of all attackers, without the ones that are refused as too many
constexpr seconds kLongestAttack{60};
constexpr seconds kTimeout{60};  // of the attacker's calls
constexpr seconds kMaxWait{10};  // of the administrator's: generous, they take milliseconds
constexpr std::size_t kMib = std::size_t{1} << 20;
constexpr std::size_t kMaxGrowth = 100 * kMib;
constexpr std::size_t kMaxGrowthAfterwards = 50 * kMib;

// `opening`, then `item` again and again, then `closing`: as long as a body may be.
std::string Repeated(const std::string& opening, const std::string& item, const std::string& closing) {
  std::string body = opening + item;
  while (body.size() + item.size() + closing.size() + 1 <= kMib) body += "," + item;
  return body + closing;
}

struct Call {
  std::string path;
  std::string body;
};

// Quick methods and long ones, with bodies that become trees of many nodes, or long texts, or long lists.
std::vector<Call> Attacks() {
  const std::string objects = Repeated(R"({"a":[)", "{}", "]}");
  const std::string action = "/webapi/VEXA.Virtualization.Guest.Action/pwr_ctl";
  return {{kGetPath, objects},
          {action, objects},
          {"/webapi/VEXA.Virtualization.Guest/set", Repeated(R"({"guest_id":"x","vnics_add":[)", "[]", "]}")},
          {action, Repeated(R"({"guest_id":"x","action":"poweroff_by_ha","host_ids":[)", "\"h\"", "]}")},
          {kGetPath, R"({"guest_id":")" + std::string(kMib - 100, 'x') + "\"}"},
          {"/webapi/VEXA.Virtualization.Guest/import", objects},
          {"/webapi/VEXA.Virtualization.Guest/list", "{}"},
          {"/webapi/VEXA.Virtualization.Image/list", "{}"}};
}

class Attack {
 public:
  explicit Attack(const AttackedHost& host) {
    for (int i = 0; i < kAttackers; ++i) clients_.push_back(host.ClientOf("mallory", kTimeout));
    for (int i = 0; i < kAttackers; ++i) {
      threads_.emplace_back([this, i] { Run(static_cast<std::size_t>(i)); });
    }
  }
  bool IsRunning() const { return finished_ < kAttackers; }
  // The codes of the replies. Waits for the end.
  std::set<int> Codes() {
    threads_.clear();
    return codes_;
  }

 private:
  void Run(std::size_t attacker) {
    const auto until = std::chrono::steady_clock::now() + kLongestAttack;
    for (std::size_t call = attacker; answered_ < kCalls && std::chrono::steady_clock::now() < until; ++call) {
      const Call& attack = attacks_[call % attacks_.size()];
      const HttpReply reply = clients_[attacker].PostJson(attack.path, attack.body);
      const int code = CodeOf(reply);
      if (reply.arrived() && code != user_error::kHostBusy) ++answered_;
      const MutexLock lock(mutex_);
      codes_.insert(code);
    }
    ++finished_;
  }

  const std::vector<Call> attacks_ = Attacks();
  std::vector<HttpClient> clients_;
  std::atomic<int> answered_ = 0;
  std::atomic<int> finished_ = 0;
  Mutex mutex_;
  std::set<int> codes_ VEXA_GUARDED_BY(mutex_);
  std::vector<std::jthread> threads_;
};

// 200 such calls took 3.3 GB, for good.
TEST(CallerQuota, UserWithoutRights_UsesAllTheyMay_TakesLittleMemoryAndKeepsNobodyWaiting) {
  const AttackedHost host;
  HttpClient admin = host.ClientOf("admin", kMaxWait);
  ASSERT_TRUE(AttackedHost::Gets(admin));
  const std::size_t before = host.ResidentBytes();
  std::size_t most = before;
  int gets = 0;
  for (const AttackTime time(milliseconds(0)); !time.IsOver() || gets == 0;) {
    Attack attack(host);
    while (attack.IsRunning()) {
      ASSERT_TRUE(AttackedHost::Gets(admin)) << "after " << gets;
      ++gets;
      most = std::max(most, host.ResidentBytes());
    }
    EXPECT_TRUE(attack.Codes().contains(user_error::kBodyTooLarge)) << "nothing was attacked";
  }
  EXPECT_LT(most - before, kMaxGrowth);
  const auto until = std::chrono::steady_clock::now() + seconds(60);
  while (host.ResidentBytes() > before + kMaxGrowthAfterwards && std::chrono::steady_clock::now() < until) {
    std::this_thread::sleep_for(milliseconds(200));
  }
  EXPECT_LT(host.ResidentBytes(), before + kMaxGrowthAfterwards) << "it was " << most;
  Report(fmt::format("{} connections of a user without rights; another user was served {} times; memory grew by {} MiB",
                     kAttackers, gets, (most - before) / kMib));
}

// They took all threads of the methods that only read.
TEST(CallerQuota, UserWhoseCommitsHang_CanStillRead) {
  const AttackedHost host;
  HttpClient reader = host.ClientOf("admin", kMaxWait);
  std::vector<HttpClient> writers;
  for (int i = 0; i < 80; ++i) writers.push_back(host.ClientOf("admin", seconds(120)));
  Process holder({.argv = {STORE_TEST_WORKER_PROGRAM, "stop_in_commit", host.StoreDirectory()}});
  ASSERT_TRUE(holder.WaitForText("holds", kTimeout)) << holder.errors();
  std::atomic<int> refused = 0;
  {
    std::vector<std::jthread> threads;
    for (HttpClient& writer : writers) {
      threads.emplace_back([&refused, &writer] {
        const HttpReply reply =
            writer.PostJson("/webapi/VEXA.Core.Account/groups_set", R"({"name":"mallory","groups":["others"]})");
        if (CodeOf(reply) == user_error::kHostBusy) ++refused;
      });
    }
    // All of them have come when those beyond the limit of 64 have been refused.
    const auto until = std::chrono::steady_clock::now() + seconds(30);
    while (refused < 16 && std::chrono::steady_clock::now() < until) {
      std::this_thread::sleep_for(milliseconds(10));
    }
    EXPECT_GE(refused, 16);
    for (int i = 0; i < 20; ++i) EXPECT_TRUE(AttackedHost::Gets(reader)) << i;
    holder.Signal(SIGCONT);
  }
  Report(fmt::format("{} changes hung or were refused, and the user could read", writers.size()));
}

}  // namespace
}  // namespace vexa::test
