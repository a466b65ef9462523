// Digests of data in parts, and numbers of bytes for people.
#include "host/base/sha256.h"

#include <gtest/gtest.h>

#include <string>

#include "host/base/byte_text.h"

namespace vexa {
namespace {

// From FIPS 180-2, appendix B, and the empty message.
TEST(Sha256, KnownMessages_InParts_HaveTheirDigests) {
  Sha256 empty;
  EXPECT_EQ(empty.Digest(), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  Sha256 abc;
  abc.Add("a");
  abc.Add("");
  abc.Add("bc");
  EXPECT_EQ(abc.Digest(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  Sha256 million;
  for (int i = 0; i < 1000; ++i) million.Add(std::string(1000, 'a'));
  EXPECT_EQ(million.Digest(), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, Text_OfOtherForm_IsNotADigest) {
  const std::string digest(64, 'a');
  EXPECT_TRUE(IsSha256(digest));
  for (const std::string& text : {digest.substr(1), digest + "a", std::string(64, 'A'), std::string(64, 'g'),
                                  std::string(63, 'a') + "\n", std::string()}) {
    EXPECT_FALSE(IsSha256(text)) << text;
  }
}

TEST(ByteText, Numbers_AreInTheLargestUnitRoundedDown) {
  EXPECT_EQ(ByteText(0), "0 bytes");
  EXPECT_EQ(ByteText(1), "1 byte");
  EXPECT_EQ(ByteText(1023), "1023 bytes");
  EXPECT_EQ(ByteText(1024), "1.0 KiB");
  EXPECT_EQ(ByteText(1024 * 1024 - 1), "1023.9 KiB");
  EXPECT_EQ(ByteText(std::uint64_t{3} << 29), "1.5 GiB");
  EXPECT_EQ(ByteText(UINT64_MAX), "15.9 EiB");
}

}  // namespace
}  // namespace vexa
