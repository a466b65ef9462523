// A test of calls that add, change and remove records in the store of a host.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>

#include "host/base/refusal.h"
#include "tests/support/require.h"
#include "tests/support/test_host.h"

namespace vexa::test {

class RecordTest : public ::testing::Test {
 protected:
  // Refused with the code and the sentence, and nothing has changed.
  void ExpectRefused(const std::function<guests::Refused()>& act, int code, const std::string& reason) {
    const store::Revision before = Revision();
    const guests::Refused refused = act();
    ASSERT_TRUE(refused) << reason;
    EXPECT_EQ(refused->code, code);
    EXPECT_EQ(refused->reason, reason);
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

}  // namespace vexa::test
