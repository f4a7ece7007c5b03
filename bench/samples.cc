#include "samples.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double Percentile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

}  // namespace

int MeasureAndPrint(std::size_t count, const std::function<bool()>& round_trip) {
  if (count == 0) {
    std::fprintf(stderr, "how many round trips are to be measured: give a number from 1\n");
    return 2;
  }
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count + count / 10; ++i) {
    const auto start = Clock::now();
    if (!round_trip()) {
      std::fprintf(stderr, "round trip %zu failed\n", i);
      return 1;
    }
    if (i >= count / 10) {
      samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
  }
  std::sort(samples.begin(), samples.end());
  std::printf("{\"count\": %zu, \"p50_us\": %.2f, \"p99_us\": %.2f}\n", count, Percentile(samples, 0.5),
              Percentile(samples, 0.99));
  return 0;
}

std::size_t CountArgument(int argc, char** argv, std::size_t otherwise) {
  const long count = argc > 1 ? std::atol(argv[1]) : 0;
  return count > 0 ? static_cast<std::size_t>(count) : otherwise;
}

}  // namespace bench
