// A method of a daemon that only tests have.
#pragma once

#include <string_view>
#include <utility>

#include "host/api/api_table.h"

namespace vexa::test {

inline api::ApiRow TestRow(std::string_view api, std::string_view method, api::Access access, api::LaneKind lane,
                           api::Handler handler) {
  return {.api = api,
          .method = method,
          .version = 1,
          .access = access,
          .lane = lane,
          .handler = std::move(handler),
          .summary = "A method of the tests.",
          .parameters = {},
          .errors = {}};
}

}  // namespace vexa::test
