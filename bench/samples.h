// Round trips, timed one by one, and their percentiles.
#ifndef BENCH_SAMPLES_H_
#define BENCH_SAMPLES_H_

#include <cstddef>
#include <functional>
#include <vector>

namespace bench {

class Child;

// Bytes carried by each request of the call benchmarks.
inline constexpr std::size_t kPayloadBytes = 100;

// Runs `round_trip` for a tenth of `count` times to warm up, then `count` times, and prints
// {"count": N, "p50_us": …, "p99_us": …} on standard output. `round_trip` returns false when it failed: the program
// then ends with status 1.
//
// With a `server`, which is ended, each side's cost of a round trip is printed too: "client_cpu_us", "server_cpu_us"
// (user and system, all threads) and "client_switches", "server_switches" (voluntary and forced).
int MeasureAndPrint(std::size_t count, const std::function<bool()>& round_trip, Child* server = nullptr);

// Prints such an object for samples that were taken otherwise, in microseconds; there is at least one.
void PrintPercentiles(std::vector<double> samples);

// The count given as the first argument of the program, else `otherwise`.
std::size_t CountArgument(int argc, char** argv, std::size_t otherwise);

}  // namespace bench

#endif  // BENCH_SAMPLES_H_
