// Clients of the daemon that is measured.
#pragma once

#include <string>

#include "tests/support/http_client.h"

namespace vexa::bench {

// A client on the daemon's Unix socket; logged in unless `token` is empty.
test::HttpClient ClientOn(const std::string& socket, const std::string& token);

// Logs in as one of the users that Seed (http_bench_data.h) creates. Returns the token.
std::string Login(test::HttpClient& client, const std::string& user);

}  // namespace vexa::bench
