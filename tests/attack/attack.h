// What the attacks have in common: how long they go on, and the line that each of them leaves.
#pragma once

#include <chrono>
#include <functional>
#include <random>
#include <string>

namespace vexa::test {

// Generous: machines of continuous integration are several times as slow as a developer's, and busy.
inline constexpr std::chrono::seconds kPatience{60};

// How long an attack goes on: VEXA_ATTACK_MINUTES of the environment, or without it a few seconds. Begins when it is
// made.
class AttackTime {
 public:
  explicit AttackTime(std::chrono::milliseconds short_form);
  bool IsOver() const { return std::chrono::steady_clock::now() >= end_; }
  std::chrono::milliseconds length() const { return length_; }

 private:
  std::chrono::milliseconds length_;
  std::chrono::steady_clock::time_point end_;
};

// Whether `condition` holds within kPatience.
bool HoldsInTime(const std::function<bool()>& condition);

// The seed is VEXA_ATTACK_SEED of the environment; otherwise the short form has the same one every time, so that a test
// run can be repeated, and the long form a new one. It is printed.
std::mt19937 MakeRandom();

// Prints one line, which `./dev attack` shows: whether the running test has had no failure so far, its name, and what
// was seen.
void Report(const std::string& what);

}  // namespace vexa::test
