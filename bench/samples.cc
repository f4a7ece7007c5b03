#include "samples.h"

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <vector>

#include "child.h"

namespace bench {

namespace {

using Clock = std::chrono::steady_clock;

double Percentile(const std::vector<double>& sorted, double part) {
  return sorted[static_cast<std::size_t>(part * static_cast<double>(sorted.size() - 1))];
}

// Microseconds that each round trip took; nothing when one failed.
std::optional<std::vector<double>> TimeEach(std::size_t count, const std::function<bool()>& round_trip) {
  std::vector<double> samples;
  samples.reserve(count);
  for (std::size_t i = 0; i < count; ++i) {
    const auto start = Clock::now();
    if (!round_trip()) {
      std::fprintf(stderr, "round trip %zu failed\n", i);
      return std::nullopt;
    }
    samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
  }
  return samples;
}

struct Cost {
  double cpu_us = 0;
  double switches = 0;
};

Cost CostOf(const rusage& used) {
  const auto seconds = static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec);
  const auto micros = static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec);
  return {1e6 * seconds + micros, static_cast<double>(used.ru_nvcsw + used.ru_nivcsw)};
}

rusage OwnUsage() {
  rusage used{};
  getrusage(RUSAGE_SELF, &used);
  return used;
}

void PrintCost(const char* side, const Cost& cost, std::size_t round_trips) {
  const auto each = static_cast<double>(round_trips);
  std::printf(", \"%s_cpu_us\": %.2f, \"%s_switches\": %.2f", side, cost.cpu_us / each, side, cost.switches / each);
}

}  // namespace

int MeasureAndPrint(std::size_t count, const std::function<bool()>& round_trip, Child* server) {
  if (count == 0) {
    std::fprintf(stderr, "how many round trips are to be measured: give a number from 1\n");
    return 2;
  }
  const std::size_t warm_up = count / 10;
  if (!TimeEach(warm_up, round_trip)) return 1;
  const Cost before = CostOf(OwnUsage());
  std::optional<std::vector<double>> samples = TimeEach(count, round_trip);
  const Cost after = CostOf(OwnUsage());
  if (!samples) return 1;
  std::sort(samples->begin(), samples->end());
  std::printf("{\"count\": %zu, \"p50_us\": %.2f, \"p99_us\": %.2f", count, Percentile(*samples, 0.5),
              Percentile(*samples, 0.99));
  if (server != nullptr) {
    PrintCost("client", {after.cpu_us - before.cpu_us, after.switches - before.switches}, count);
    // Only the whole of a child's use is known; its start is small beside so many round trips.
    PrintCost("server", CostOf(server->Stop()), warm_up + count);
  }
  std::printf("}\n");
  return 0;
}

void PrintPercentiles(std::vector<double> samples) {
  std::sort(samples.begin(), samples.end());
  std::printf("{\"count\": %zu, \"p50_us\": %.2f, \"p99_us\": %.2f}\n", samples.size(), Percentile(samples, 0.5),
              Percentile(samples, 0.99));
}

std::size_t CountArgument(int argc, char** argv, std::size_t otherwise) {
  const long count = argc > 1 ? std::atol(argv[1]) : 0;
  return count > 0 ? static_cast<std::size_t>(count) : otherwise;
}

}  // namespace bench
