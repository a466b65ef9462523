// Calls with parameters that no client sends.
#pragma once

#include <json/value.h>

#include <random>
#include <set>
#include <string>
#include <vector>

#include "tests/attack/attacked_host.h"

namespace vexa::test {

// A method as the daemon describes it.
struct Method {
  std::string path;
  std::string access;
  Json::Value parameters;  // schemas, by name
  std::set<int> statuses;  // of replies
};

// All methods that the running daemon describes.
std::vector<Method> MethodsOf(const AttackedHost& host);

// A body whose parameter `hostile` has a wrong type or size, or leads elsewhere; most of the other parameters have
// ordinary values.
std::string HostileBody(const Method& method, const std::string& hostile, std::mt19937& random);
// A body that is not an object of parameters.
std::string HostileText(std::mt19937& random);

}  // namespace vexa::test
