// Shared by the benchmarks: measuring times, quantiles of samples, and ending the program on errors.
#pragma once

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "host/base/result.h"

namespace vexa::bench {

// Ends the program with exit code 1 and the message on stderr.
[[noreturn]] void Fail(const std::string& message);

// Ends the program with "`what` failed" unless `condition`.
void Check(bool condition, const char* what);

template <class T>
T Require(Result<T> result) {
  if (!result) Fail(result.error().ToString());
  return std::move(result).value();
}

double MillisecondsSince(std::chrono::steady_clock::time_point start);

double MillisecondsOf(const auto& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return MillisecondsSince(start);
}

// `quantile` is from 0 (the smallest sample) to 1 (the largest). Requires at least one sample.
double Quantile(std::vector<double> samples, double quantile);
double Median(std::vector<double> samples);

// The number of threads of this process.
int CountThreads();

// Raises the limit of open files, for benchmarks with many connections.
void AllowManyFiles();

}  // namespace vexa::bench
