// The origin headers of requests between hosts: user, host and request id.
#include "host/transport/origin.h"
#include "tests/support/matchers.h"

#include <string>
#include <thread>

namespace vexa::transport {
namespace {

constexpr std::string_view kId = "0123456789abcdef";

std::vector<std::string> FieldsOf(std::string_view user) { return OriginHeaders({.request_id = {}, .user = user}); }

TEST(Origin, Origin_Names_ArriveUnchanged) {
  for (const std::string& name : {std::string("eve"), std::string("a b"), std::string(" eve "), std::string("100%41"),
                                  std::string("J\xc3\xbcrgen"), std::string("DOMAIN\\eve"), std::string("a:b,\"c\";"),
                                  std::string(kMaxActingUserBytes, '%')}) {
    const auto fields = FieldsOf(name);
    ASSERT_EQ(fields.size(), 1u) << name;
    const std::string start = std::string(kActsForField) + ": ";
    ASSERT_TRUE(fields[0].starts_with(start)) << fields[0];
    const std::string value = fields[0].substr(start.size());
    for (const char c : value) EXPECT_TRUE(c > ' ' && c <= '~') << value;
    EXPECT_EQ(ActingUserOf(value), name);
  }
  EXPECT_THAT(FieldsOf("J\xc3\xbcrgen M"), ElementsAre("X-Vexa-Acts-For: J%C3%BCrgen%20M"));
}

TEST(Origin, Origin_InvalidNames_AreNotSent) {
  for (const std::string& name :
       {std::string(), std::string("a\r\nX-Evil: 1"), std::string("a\nb"), std::string("a\tb"), std::string("a\0b", 3),
        std::string("a\x7f"), std::string("\xff\xfe"), std::string(kMaxActingUserBytes + 1, 'a')}) {
    EXPECT_THAT(FieldsOf(name), IsEmpty()) << name;
  }
}

TEST(Origin, Origin_InvalidValues_NameNoUser) {
  for (const std::string& value :
       {std::string(), std::string("%"), std::string("a%4"), std::string("%zz"), std::string("%+1"), std::string("%-1"),
        std::string("% 1"), std::string("a%0d%0ab"), std::string("%00"), std::string("%7F"), std::string("%FF"),
        std::string("\xff"), std::string("a\tb"), std::string(kMaxActingUserBytes + 1, 'a')}) {
    EXPECT_EQ(ActingUserOf(value), "") << value;
  }
  EXPECT_EQ(ActingUserOf("%c3%bc"), "\xc3\xbc") << "digits of either case";
}

TEST(Origin, Origin_InvalidIds_AreNotSent) {
  EXPECT_THAT(OriginHeaders({.request_id = kId, .user = "eve"}),
              ElementsAre("X-Vexa-Acts-For: eve", "X-Vexa-Request-Id: 0123456789abcdef"));
  for (const std::string& id : {std::string(), std::string("the-id"), std::string("0123456789ABCDEF"),
                                std::string(kId) + "0", std::string(kId.substr(1)), std::string("0123456789abcde\n")}) {
    EXPECT_FALSE(IsRequestId(id)) << id;
    EXPECT_THAT(OriginHeaders({.request_id = id, .user = {}}), IsEmpty()) << id;
  }
}

TEST(Origin, Origin_EachThread_HasItsOwn) {
  SetOrigin({.request_id = kId, .user = "eve"});
  std::thread([] {
    EXPECT_EQ(CurrentOrigin().user, "");
    SetOrigin({.request_id = {}, .user = "adam"});
    EXPECT_EQ(CurrentOrigin().user, "adam");
  }).join();
  EXPECT_EQ(CurrentOrigin().user, "eve");
  EXPECT_EQ(CurrentOrigin().request_id, kId);
  SetOrigin({});
  EXPECT_EQ(CurrentOrigin().user, "");
}

}  // namespace
}  // namespace vexa::transport
