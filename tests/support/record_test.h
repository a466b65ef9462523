// A test of calls that add, change and remove records in the store of a host.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "host/base/refusal.h"
#include "host/records/keys.h"
#include "host/records/named_record.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::test {

class RecordTest : public ::testing::Test {
 protected:
  static constexpr int kRecordExists = records::kRecordExists;
  static constexpr int kRecordFailed = records::kRecordFailed;
  static constexpr int kRecordInUse = records::kRecordInUse;

  // Refused with the code and the sentence, and nothing has changed.
  void ExpectRefused(const std::function<Result<void, Refusal>()>& act, int code, const std::string& reason) {
    const store::Revision before = Revision();
    const auto refused = act();
    ASSERT_FALSE(refused.ok()) << reason;
    EXPECT_EQ(refused.error().code, code);
    EXPECT_EQ(refused.error().reason, reason);
    EXPECT_EQ(Revision(), before);
  }

  store::Revision Revision() { return Require(host_.store().Read())->revision(); }
  // "": absent.
  std::string TextOf(const std::string& key) {
    const auto snapshot = Require(host_.store().Read());
    const auto value = Require(snapshot->Get(key));
    return value ? std::string(value->text) : std::string();
  }
  void Put(const std::string& key, const std::string& text) {
    (void)Require(host_.store().Commit({{}, {{key, text}}}));
  }
  void Delete(const std::string& key) { (void)Require(host_.store().Commit({{}, {{key, std::nullopt}}})); }
  static std::string Quoted(const std::string& text) { return '"' + text + '"'; }

  TestHost host_;
};

// How many of several additions were accepted; the others must be refused with kRecordExists.
inline int CountAccepted(const std::vector<Result<void, Refusal>>& results) {
  int accepted = 0;
  for (const Result<void, Refusal>& refused : results) {
    accepted += refused.ok() ? 1 : 0;
    if (!refused.ok()) {
      EXPECT_EQ(refused.error().code, records::kRecordExists) << refused.error().reason;
    }
  }
  return accepted;
}

}  // namespace vexa::test
