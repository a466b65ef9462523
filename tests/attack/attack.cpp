#include "tests/attack/attack.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <thread>

namespace vexa::test {
namespace {

std::string NameOfTest() {
  const testing::TestInfo* const test = testing::UnitTest::GetInstance()->current_test_info();
  return test ? fmt::format("{}.{}", test->test_suite_name(), test->name()) : "";
}

std::chrono::milliseconds LengthOf(std::chrono::milliseconds short_form) {
  const char* const minutes = std::getenv("VEXA_ATTACK_MINUTES");
  if (minutes == nullptr) return short_form;
  return std::chrono::milliseconds(static_cast<std::int64_t>(std::atof(minutes) * 60'000));
}

}  // namespace

AttackTime::AttackTime(std::chrono::milliseconds short_form)
    : length_(LengthOf(short_form)), end_(std::chrono::steady_clock::now() + length_) {}

bool HoldsInTime(const std::function<bool()>& condition) {
  const auto end = std::chrono::steady_clock::now() + kPatience;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

std::mt19937 MakeRandom() {
  unsigned seed = 1;
  if (const char* const given = std::getenv("VEXA_ATTACK_SEED")) {
    seed = static_cast<unsigned>(std::strtoul(given, nullptr, 10));
  } else if (std::getenv("VEXA_ATTACK_MINUTES")) {
    seed = std::random_device{}();
  }
  std::printf("VEXA_ATTACK_SEED=%u\n", seed);
  return std::mt19937(seed);
}

void Report(const std::string& what) {
  const char* const outcome = testing::Test::HasFailure() ? "NOT HELD" : "held";
  std::printf("ATTACK %s %s: %s\n", outcome, NameOfTest().c_str(), what.c_str());
  std::fflush(stdout);
}

}  // namespace vexa::test
