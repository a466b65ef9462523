#include "host/base/memory_trim.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <vector>

namespace vexa {
namespace {

constexpr std::size_t kBlock = 1000;

std::vector<std::unique_ptr<char[]>> Blocks(std::size_t bytes) {
  std::vector<std::unique_ptr<char[]>> blocks(bytes / kBlock);
  for (auto& block : blocks) {
    block = std::make_unique_for_overwrite<char[]>(kBlock);
    std::memset(block.get(), 1, kBlock);
  }
  return blocks;
}

TEST(MemoryTrimmer, ManyBlocks_Freed_AreGivenBack) {
  constexpr std::size_t kBytes = std::size_t{200} << 20;
  MemoryTrimmer trimmer;
  const std::size_t before = ResidentBytes();
  ASSERT_GT(before, 0u);
  std::unique_ptr<char[]> last;  // the end of the heap stays in use
  {
    const auto blocks = Blocks(kBytes);
    last = std::make_unique<char[]>(kBlock);
  }
  ASSERT_GE(ResidentBytes(), before + kBytes / 2) << "the C library gave it back by itself";
  EXPECT_TRUE(trimmer.TrimAfterGrowth());
  EXPECT_LT(ResidentBytes(), before + kBytes / 10);
}

TEST(MemoryTrimmer, Process_HasNotGrown_IsLeftAlone) {
  MemoryTrimmer trimmer;
  EXPECT_FALSE(trimmer.TrimAfterGrowth());
  const auto small = Blocks(MemoryTrimmer::kMinGrowth / 8);
  EXPECT_FALSE(trimmer.TrimAfterGrowth());
}

// An attempt during the burst must not be the last one.
TEST(MemoryTrimmer, Memory_InUseAtFirst_IsGivenBackAfterItIsFreed) {
  constexpr std::size_t kBytes = std::size_t{200} << 20;
  MemoryTrimmer trimmer;
  const std::size_t before = ResidentBytes();
  std::unique_ptr<char[]> last;
  {
    const auto blocks = Blocks(kBytes);
    last = std::make_unique<char[]>(kBlock);
    EXPECT_TRUE(trimmer.TrimAfterGrowth());
    EXPECT_FALSE(trimmer.TrimAfterGrowth()) << "it does not try at each call";
  }
  for (int calls = 0; calls < MemoryTrimmer::kCallsBetweenAttempts; ++calls) (void)trimmer.TrimAfterGrowth();
  EXPECT_LT(ResidentBytes(), before + kBytes / 10);
}

}  // namespace
}  // namespace vexa
