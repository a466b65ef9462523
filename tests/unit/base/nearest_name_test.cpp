#include "host/base/nearest_name.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

namespace vexa {
namespace {

constexpr std::array<std::string_view, 5> kKnown = {"vcpu_num", "vram_size", "name", "Hypervisor", "id"};

TEST(NearestName, SimilarWord_FindsNearest) {
  EXPECT_EQ(NearestName("vcpus", kKnown), "vcpu_num");
  EXPECT_EQ(NearestName("vram", kKnown), "vram_size");
  EXPECT_EQ(NearestName("nmae", kKnown), "name");
  EXPECT_EQ(NearestName("HYPERVISER", kKnown), "Hypervisor");
  EXPECT_EQ(NearestName("ids", kKnown), "id");
  EXPECT_EQ(NearestName("name", kKnown), "name");
}

TEST(NearestName, WordUnlikeAll_FindsNothing) {
  EXPECT_EQ(NearestName("xyzzy", kKnown), "");
  EXPECT_EQ(NearestName("", kKnown), "");
  EXPECT_EQ(NearestName("name", {}), "");
}

TEST(NearestName, EmptyKnownName_IsNeverNearest) {
  constexpr std::array<std::string_view, 2> kWithEmpty = {"", "b"};
  EXPECT_EQ(NearestName("a", kWithEmpty), "b");
}

TEST(NearestName, SameDistance_FindsFirst) {
  constexpr std::array<std::string_view, 2> kPair = {"cat", "car"};
  EXPECT_EQ(NearestName("cab", kPair), "cat");
}

TEST(NearestName, LongWord_FindsNothing) {
  const std::string word(65, 'n');
  const std::array<std::string_view, 1> known = {word};
  EXPECT_EQ(NearestName(word, known), "");
  EXPECT_EQ(NearestName(std::string_view(word).substr(1), known), word);
}

}  // namespace
}  // namespace vexa
