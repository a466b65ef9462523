#include "host/store/key.h"

#include <gtest/gtest.h>

namespace vexa::store {
namespace {

struct SegmentRow {
  std::string text;
  std::string encoded;
};

const SegmentRow kSegments[] = {
    {"plain", "plain"},
    {"AZaz09-_.~:@+", "AZaz09-_.~:@+"},
    {"", "%"},
    {".", "%2E"},
    {"..", "%2E."},
    {"....", "%2E..."},
    {".a", ".a"},
    {"a..", "a.."},
    {"a/b", "a%2Fb"},
    {"%", "%25"},
    {"%2F", "%252F"},
    {std::string("\0", 1), "%00"},
    {"\n ", "%0A%20"},
    {"ä", "%C3%A4"},
    {"\xff\x80", "%FF%80"},
    {"[*?]", "%5B%2A%3F%5D"},
};

TEST(Key, Segment_EncodedAndDecoded_IsSame) {
  for (const SegmentRow& row : kSegments) {
    EXPECT_EQ(EncodeSegment(row.text), row.encoded);
    EXPECT_EQ(DecodeSegment(row.encoded), row.text);
  }
}

TEST(Key, Segment_EveryByte_IsDecodedUnchanged) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text = {static_cast<char>(first), static_cast<char>(second)};
      const std::string encoded = EncodeSegment(text);
      EXPECT_EQ(encoded.find('/'), std::string::npos);
      ASSERT_EQ(DecodeSegment(encoded), text);
    }
  }
}

TEST(Key, DecodeSegment_NonCanonicalEncoding_IsRefused) {
  for (const std::string& encoded :
       {std::string(), std::string("."), std::string(".."), std::string("a b"), std::string("a/b"), std::string("%2f"),
        std::string("%41"), std::string("%2"), std::string("a%"), std::string("%%"), std::string("%2G"),
        std::string("%2E%2E"), std::string(".%2E"), std::string("%2Ea"), std::string("a\0", 2),
        std::string("\xc3\xa4")}) {
    EXPECT_FALSE(DecodeSegment(encoded).has_value()) << encoded;
  }
}

TEST(Key, MakeKey_HostileSegments_StayInPlace) {
  EXPECT_EQ(MakeKey({"dash", "guest", "../x", ""}), "/dash/guest/..%2Fx/%");
  EXPECT_EQ(MakeKey({}), "");
}

TEST(Key, IsKey_ResultOfMakeKey_IsTrue) {
  EXPECT_TRUE(IsValidKey("/a"));
  EXPECT_TRUE(IsValidKey(MakeKey({"", "..", "a/b", "ä"})));
  EXPECT_TRUE(IsValidKey("/" + std::string(kMaxKeyBytes - 1, 'k')));
  EXPECT_FALSE(IsValidKey("/" + std::string(kMaxKeyBytes, 'k')));
  for (const char* key : {"", "/", "a", "/a/", "//a", "/a//b", "/a/..", "/a b"}) EXPECT_FALSE(IsValidKey(key)) << key;
}

TEST(Key, IsAtOrBelow_PartOfSegment_IsFalse) {
  EXPECT_TRUE(IsAtOrBelow("/a/b", "/a/b"));
  EXPECT_TRUE(IsAtOrBelow("/a/b/c", "/a/b"));
  EXPECT_TRUE(IsAtOrBelow("/a", ""));
  EXPECT_FALSE(IsAtOrBelow("/a/bc", "/a/b"));
  EXPECT_FALSE(IsAtOrBelow("/a", "/a/b"));
}

}  // namespace
}  // namespace vexa::store
