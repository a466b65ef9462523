// Where a vexad that runs as a program can be called.
#pragma once

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/http_client.h"
#include "tests/support/process.h"

namespace vexa::test {

// The network listener of a daemon with the flags `--listen 127.0.0.1:0 --log stderr`. The test fails when it has none.
inline HttpTarget NetworkOf(const Process& daemon) {
  std::smatch match;
  const std::string log = daemon.errors();
  EXPECT_TRUE(std::regex_search(log, match, std::regex(R"(Listening on (http://127\.0\.0\.1:[0-9]+)\.)"))) << log;
  HttpTarget target;
  target.url = match[1];
  return target;
}

inline HttpTarget UnixSocket(const std::string& path) {
  HttpTarget target;
  target.url = "http://localhost";
  target.unix_socket = path;
  return target;
}

}  // namespace vexa::test
