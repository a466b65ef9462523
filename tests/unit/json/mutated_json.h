// A valid value, mutated: each of its nodes is replaced by every kind of value in turn.
#pragma once

#include <gtest/gtest.h>
#include <json/value.h>

#include <functional>
#include <string>

#include "tests/unit/webapi/host_fixture.h"

namespace vexa::test {

inline const Json::Value& BadValues() {
  static const Json::Value values =
      Parsed(R"([null,true,false,5,-1,2.5,1e300,18446744073709551615,"x",[],{},[[]],{"a":{}}])");
  return values;
}

// Calls `visit` with `tree` once per node and bad value, that node being the value; then without each member.
inline void ForEachMutation(Json::Value& tree, Json::Value& node, const std::function<void()>& visit) {
  const Json::Value good = node;
  for (const Json::Value& bad : BadValues()) {
    node = bad;
    SCOPED_TRACE(Text(tree));
    visit();
  }
  node = good;
  if (good.isObject()) {
    for (const std::string& name : good.getMemberNames()) {
      node.removeMember(name);
      {
        SCOPED_TRACE(Text(tree));
        visit();
      }
      node = good;
      ForEachMutation(tree, node[name], visit);
    }
  } else if (good.isArray()) {
    for (Json::ArrayIndex i = 0; i < good.size(); ++i) ForEachMutation(tree, node[i], visit);
  }
}

inline void ForEachMutation(Json::Value& tree, const std::function<void()>& visit) {
  int visits = 0;
  ForEachMutation(tree, tree, [&] {
    ++visits;
    EXPECT_NO_THROW(visit());
  });
  EXPECT_GT(visits, static_cast<int>(BadValues().size()));
}

}  // namespace vexa::test
