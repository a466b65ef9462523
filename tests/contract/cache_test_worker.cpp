// A process that uses a cache, for tests: cache_test_worker COMMAND FOLDER. Exit code 0: all checks passed.
//   read  reads and refreshes on two threads until it is killed; exits by itself when it reads an incomplete value
//   hang  begins a refresh, prints "refreshing" and never ends
//   slow  prints "refreshing" within a refresh that takes a second, and ends
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "host/records/environment.h"
#include "tests/contract/cache_test_value.h"

namespace vexa::test {
namespace {

void Require(bool condition, const char* what) {
  if (condition) return;
  std::fprintf(stderr, "cache_test_worker: %s\n", what);
  std::_Exit(1);
}

void AnnounceRefresh() {
  std::printf("refreshing\n");
  std::fflush(stdout);
}

void ReadUntilKilled(const std::string& folder) {
  for (int i = 0;; ++i) {
    const ChecksummedCache cache(folder, 0);
    const Json::Value value = i % 2 == 0 ? cache.BlockedRead() : cache.NonBlockedRead();
    Require(IsCompleteValue(value), "an incomplete value was read");
  }
}

int Read(const std::string& folder) {
  std::thread second([&folder] { ReadUntilKilled(folder); });
  ReadUntilKilled(folder);
  return 1;
}

int Hang(const std::string& folder) {
  (void)ChecksummedCache(folder, 0, [] {
    AnnounceRefresh();
    while (true) ::pause();
  }).BlockedRead();
  return 1;
}

int RefreshSlowly(const std::string& folder) {
  const Json::Value value = ChecksummedCache(folder, 0, [] {
                              AnnounceRefresh();
                              std::this_thread::sleep_for(std::chrono::seconds(1));
                            }).BlockedRead();
  Require(RefresherOf(value) == ::getpid(), "another process computed the value");
  return 0;
}

int Run(std::string_view command, const std::string& folder) {
  records::Environment environment;
  environment.cache_directory = folder + "/cache";
  records::InstallEnvironment(std::move(environment));
  if (command == "read") return Read(folder);
  if (command == "hang") return Hang(folder);
  if (command == "slow") return RefreshSlowly(folder);
  return 2;
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) { return argc == 3 ? vexa::test::Run(argv[1], argv[2]) : 2; }
