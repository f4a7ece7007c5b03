// Figures of the process for Prometheus: the console's command `metrics` prints them, and KLBASE_METRICS_FILE names a
// file that has them.
//
//   const klbase::Counters& Calls() {
//     static const klbase::Counters calls("vextool_calls_total", "Calls by message.", {"message"});
//     return calls;
//   }
//   ...
//   Calls().With({"player.v1.CreateReq"}).Add();
//
// Names follow Prometheus' conventions: "_total" for counters, "_seconds" for times. A family that is made again under
// its name is the same one; a name that is taken by another kind of figure, or that Prometheus does not allow, ends the
// program with a message. A name of a label must not be one of Prometheus' own ("le").
//
// All of it may be used on any thread, and by static objects. Figures live as long as the process: a handle that With()
// has returned stays valid and may be kept, which saves the look-up. Adding to a counter or a gauge is one atomic
// operation; a histogram takes a lock of its own for a moment.
#ifndef KLBASE_METRICS_H_
#define KLBASE_METRICS_H_

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "klbase/export.h"

namespace klbase {

// A value for each label of a family, in their order.
using LabelValues = std::initializer_list<std::string_view>;

// So many values of a family's first label are told apart; the figures of all later ones are those of "other". What
// comes from outside must not make a process grow without end. The other labels' values must be a fixed set.
constexpr std::size_t kMostLabelValues = 200;

// A number that only grows.
class KLBASE_EXPORT Counter {
 public:
  // `amount` is not negative.
  void Add(double amount = 1) const;

 private:
  friend class Counters;
  explicit Counter(void* figure) : figure_(figure) {}
  void* figure_;
};

// A number that goes up and down.
class KLBASE_EXPORT Gauge {
 public:
  void Add(double amount) const;
  void Set(double value) const;

 private:
  friend class Gauges;
  explicit Gauge(void* figure) : figure_(figure) {}
  void* figure_;
};

// How often values were up to each of some bounds.
class KLBASE_EXPORT Histogram {
 public:
  // In the unit of the bounds.
  void Observe(double value) const;

 private:
  friend class Histograms;
  explicit Histogram(void* figure) : figure_(figure) {}
  void* figure_;
};

// A family of figures: those of one name, told apart by the values of their labels.
class KLBASE_EXPORT Counters {
 public:
  Counters(const std::string& name, const std::string& help, std::vector<std::string> labels = {},
           std::size_t most = kMostLabelValues);
  // Makes the figure, as 0, if it is new.
  Counter With(LabelValues values = {}) const;

 private:
  void* family_;
};

class KLBASE_EXPORT Gauges {
 public:
  Gauges(const std::string& name, const std::string& help, std::vector<std::string> labels = {},
         std::size_t most = kMostLabelValues);
  Gauge With(LabelValues values = {}) const;

 private:
  void* family_;
};

class KLBASE_EXPORT Histograms {
 public:
  // `bounds` are sorted, the smallest first.
  Histograms(const std::string& name, const std::string& help, std::vector<std::string> labels,
             std::vector<double> bounds, std::size_t most = kMostLabelValues);
  Histogram With(LabelValues values = {}) const;

 private:
  void* family_;
};

// Counts as one of a gauge as long as it lives.
class Counted {
 public:
  explicit Counted(Gauge gauge) : gauge_(gauge), counts_(true) { gauge_.Add(1); }
  Counted(Counted&& other) noexcept : gauge_(other.gauge_), counts_(std::exchange(other.counts_, false)) {}
  Counted& operator=(Counted other) noexcept {
    std::swap(gauge_, other.gauge_);
    std::swap(counts_, other.counts_);
    return *this;
  }
  ~Counted() {
    if (counts_) gauge_.Add(-1);
  }

 private:
  Gauge gauge_;
  bool counts_;
};

// All figures in Prometheus' text format, the families sorted by name. Takes about a millisecond, and holds no lock
// while the text is made.
KLBASE_EXPORT std::string MetricsText();

}  // namespace klbase

#endif  // KLBASE_METRICS_H_
