#include "bench/bench_util.h"

#include <errno.h>
#include <sys/resource.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace vexa::bench {

void Fail(const std::string& message) {
  std::fprintf(stderr, "%s: %s\n", program_invocation_short_name, message.c_str());
  std::exit(1);
}

void Check(bool condition, const char* what) {
  if (!condition) Fail(std::string(what) + " failed");
}

double MillisecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

double Quantile(std::vector<double> samples, double quantile) {
  if (samples.empty()) Fail("nothing was measured");
  std::sort(samples.begin(), samples.end());
  return samples[static_cast<std::size_t>(quantile * static_cast<double>(samples.size() - 1))];
}

double Median(std::vector<double> samples) { return Quantile(std::move(samples), 0.5); }

int CountThreads() {
  int count = 0;
  for ([[maybe_unused]] const auto& task : std::filesystem::directory_iterator("/proc/self/task")) ++count;
  return count;
}

void AllowManyFiles() {
  rlimit limit{};
  Check(::getrlimit(RLIMIT_NOFILE, &limit) == 0, "getrlimit");
  limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, 65'536);
  Check(::setrlimit(RLIMIT_NOFILE, &limit) == 0, "setrlimit");
}

}  // namespace vexa::bench
