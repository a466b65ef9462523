// Times reads of a cache as large as the states of 10,000 guests.
#include <json/value.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <string>
#include <utility>

#include "host/cluster/environment.h"
#include "webapi/platform/dr_cache.h"

namespace {

class GuestStates : public VexaDR::Cache::DRCache {
 public:
  explicit GuestStates(int guests) : DRCache("bench", "states", 3600, 0), guests_(guests) {}

  bool GetUpdatedData(Json::Value& data) const override {
    data["guests"] = Json::Value(Json::arrayValue);
    for (int i = 0; i < guests_; ++i) {
      char id[40];
      std::snprintf(id, sizeof id, "%08d-1111-4222-8333-444444444444", i);
      Json::Value guest;
      guest["guest_id"] = id;
      guest["status"] = "running";
      guest["status_type"] = "healthy";
      data["guests"].append(std::move(guest));
    }
    return true;
  }

 private:
  const int guests_;
};

void Install(const std::string& folder) {
  vexa::cluster::RemoveEnvironment();
  vexa::cluster::Environment environment;
  environment.cache_directory = folder;
  vexa::cluster::InstallEnvironment(std::move(environment));
}

double ProcessorMs() {
  timespec now{};
  ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

template <class Call>
void Time(const char* what, const Call& call) {
  const double processor = ProcessorMs();
  const auto start = std::chrono::steady_clock::now();
  call();
  const std::chrono::duration<double, std::milli> taken = std::chrono::steady_clock::now() - start;
  std::printf("%-32s %8.2f ms, of the processor %8.2f ms\n", what, taken.count(), ProcessorMs() - processor);
}

}  // namespace

int main() {
  std::string folder = (std::filesystem::temp_directory_path() / "cache_bench.XXXXXX").string();
  if (!::mkdtemp(folder.data())) return 1;
  Install(folder);
  const GuestStates cache(10'000);
  Time("refresh", [&] { (void)cache.BlockedRead(); });
  Time("read after the own refresh", [&] { (void)cache.NonBlockedRead(); });
  for (int round = 0; round < 5; ++round) {
    Install(folder);
    Time("first read, parsed", [&] { (void)cache.NonBlockedRead(); });
    Time("read again", [&] { (void)cache.NonBlockedRead(); });
  }
  vexa::cluster::RemoveEnvironment();
  std::filesystem::remove_all(folder);
  return 0;
}
