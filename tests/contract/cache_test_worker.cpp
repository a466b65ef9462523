// Another process on a cache, for tests: cache_test_worker COMMAND FOLDER. Exit code 0: all was as it must be.
//   read  reads and refreshes on two threads until it is killed; ends by itself when it sees a torn value
//   hang  begins a refresh, says "refreshing" and never ends it
//   slow  says "refreshing" within a refresh that takes a second, and ends
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

void Require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "cache_test_worker: %s\n", what);
  std::_Exit(1);
}

void SayRefreshing() {
  std::printf("refreshing\n");
  std::fflush(stdout);
}

void ReadForEver(const std::string& folder) {
  for (int i = 0;; ++i) {
    const ChecksummedCache cache(folder, 0);
    const Json::Value value = i % 2 == 0 ? cache.BlockedRead() : cache.NonBlockedRead();
    Require(IsWholeValue(value), "a torn value was read");
  }
}

int Read(const std::string& folder) {
  std::thread second([&folder] { ReadForEver(folder); });
  ReadForEver(folder);
  return 1;
}

int Hang(const std::string& folder) {
  (void)ChecksummedCache(folder, 0, [] {
    SayRefreshing();
    while (true) ::pause();
  }).BlockedRead();
  return 1;
}

int RefreshSlowly(const std::string& folder) {
  const Json::Value value = ChecksummedCache(folder, 0, [] {
                              SayRefreshing();
                              std::this_thread::sleep_for(std::chrono::seconds(1));
                            }).BlockedRead();
  Require(FinderOf(value) == ::getpid(), "the value is another's");
  return 0;
}

int Run(std::string_view command, const std::string& folder) {
  cluster::Environment environment;
  environment.cache_directory = folder + "/cache";
  cluster::InstallEnvironment(std::move(environment));
  if (command == "read") return Read(folder);
  if (command == "hang") return Hang(folder);
  if (command == "slow") return RefreshSlowly(folder);
  return 2;
}

}  // namespace
}  // namespace vexa::test

int main(int argc, char** argv) { return argc == 3 ? vexa::test::Run(argv[1], argv[2]) : 2; }
