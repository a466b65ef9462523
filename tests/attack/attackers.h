// All attackers at the same time, each doing something else every few seconds.
#pragma once

#include <chrono>
#include <random>
#include <string>
#include <vector>

#include "tests/attack/attacked_host.h"
#include "tests/attack/hostile_calls.h"

namespace vexa::test {

class Attackers {
 public:
  // `places` is how many connections the daemon permits.
  Attackers(const AttackedHost& host, int places, std::mt19937& random);

  using Time = std::chrono::steady_clock::time_point;
  // Returns at `end` or soon after, when everything that was begun has ended.
  void Attack(Time end);
  // What was done, in one sentence.
  std::string Summary() const;

 private:
  void Occupy(Time until);
  void Guess(Time until) const;
  void CallWithHostileParameters(Time until);
  void CallWithLongBodies(Time until) const;
  void LoginAndOut(Time until) const;

  const AttackedHost& host_;
  const int places_;
  std::mt19937& random_;
  const std::vector<Method> methods_;
  int floods_ = 0;
  int guesses_ = 0;
  int hostile_rounds_ = 0;
  int long_bodies_ = 0;
  int logins_ = 0;
  int connections_ = 0;
  int hostile_calls_ = 0;
};

}  // namespace vexa::test
