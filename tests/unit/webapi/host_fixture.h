// What the tests of the functions that ask hosts have in common.
#pragma once

#include <gtest/gtest.h>
#include <json/reader.h>
#include <syslog.h>

#include <memory>
#include <string>
#include <string_view>

#include "json/readers.h"
#include "tests/support/scripted_platform.h"
#include "tests/support/syslog_capture.h"

namespace vexa::test {

inline Json::Value Parsed(std::string_view text) {
  Json::Value value;
  const std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
  EXPECT_TRUE(reader->parse(text.data(), text.data() + text.size(), &value, nullptr)) << text;
  return value;
}

// A reply that succeeded with this data.
inline Json::Value Success(std::string_view data) {
  Json::Value reply(Json::objectValue);
  reply["success"] = true;
  reply["data"] = Parsed(data);
  return reply;
}

inline Json::Value Failure(int code) {
  Json::Value reply(Json::objectValue);
  reply["success"] = false;
  reply["error"]["code"] = code;
  return reply;
}

// Values are compared by their text: jsoncpp holds a signed and an unsigned 1 to be different. Where the type matters,
// tests look at it.
inline std::string Text(const Json::Value& value) { return VexaVirtualization::json::ToText(value); }

class HostLibrary : public testing::Test {
 protected:
  void SetUp() override {
    ResetPlatform();
    ClearCapturedSyslog();
  }

  static void ExpectNoLine() { EXPECT_TRUE(CapturedSyslog().empty()); }
  static void ExpectOnlyLine(int priority, const std::string& text) {
    const auto lines = CapturedSyslog();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].priority, priority);
    EXPECT_EQ(lines[0].text, text);
  }

  // One request was sent, in this form, without a time-out.
  static void ExpectSent(const std::string& host_id, std::string_view request) {
    ASSERT_EQ(Platform().sent.size(), 1u);
    EXPECT_EQ(Platform().sent[0].host_id, host_id);
    EXPECT_EQ(Platform().sent[0].timeout_s, 0);
    EXPECT_EQ(Text(Platform().sent[0].json), Text(Parsed(request)));
  }
};

}  // namespace vexa::test
