// What a host may do to a caller instead of answering.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/scripted_server.h"

namespace vexa::test {

inline constexpr std::size_t kMiB = std::size_t{1} << 20;

struct Misbehaviour {
  const char* name;
  ScriptedReply reply;
  const char* reason;  // in the message of the failed reply, with the host's id "other-host" among them
};

// Each makes a call fail.
const std::vector<Misbehaviour>& Misbehaviours();

// A successful reply of this size, with a text as its data's only member.
std::string ObjectOfSize(std::size_t bytes);
// A successful reply that is an object with arrays within arrays.
std::string Nested(std::size_t levels);

// A successful reply of so many values, itself among them; most are `element`, which counts as one.
std::string ObjectOfValues(std::size_t values, const std::string& element);

// "127.0.0.1:<port>"
std::string AddressOfUrl(const ScriptedServer& server);

}  // namespace vexa::test
