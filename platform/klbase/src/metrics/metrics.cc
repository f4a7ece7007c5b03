#include "klbase/metrics.h"

#include <prometheus/counter.h>
#include <prometheus/family.h>
#include <prometheus/gauge.h>
#include <prometheus/histogram.h>
#include <prometheus/registry.h>
#include <prometheus/text_serializer.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <map>
#include <set>
#include <sstream>
#include <unordered_map>

#include "absl/base/thread_annotations.h"
#include "absl/synchronization/mutex.h"
#include "metrics/process_figures.h"

namespace klbase {
namespace {

using prometheus::Family;

constexpr char kOther[] = "other";

// Never destroyed: other threads and static destructors may still count.
prometheus::Registry& TheRegistry() {
  static auto& registry = *new prometheus::Registry;
  return registry;
}

[[noreturn]] void Refuse(const std::string& name, const std::string& why) {
  std::fprintf(stderr, "klbase: metric %s: %s\n", name.c_str(), why.c_str());
  std::abort();
}

// A family with its figures by the values of their labels.
template <typename Figure>
class Figures {
 public:
  using Make = Figure& (*)(Family<Figure>& family, const prometheus::Labels& labels, const std::vector<double>& bounds);

  Figures(Family<Figure>& family, std::vector<std::string> labels, std::vector<double> bounds, std::size_t most,
          Make make)
      : family_(family), labels_(std::move(labels)), bounds_(std::move(bounds)), most_(most), make_(make) {}

  Figure* With(LabelValues values) {
    const std::string key = KeyOf(values);
    {
      const absl::ReaderMutexLock lock(&mutex_);
      if (const auto known = known_.find(key); known != known_.end()) return known->second;
    }
    if (values.size() != labels_.size()) Refuse(family_.GetName(), "a value for each label is needed");
    const absl::MutexLock lock(&mutex_);
    Figure& figure = MakeLocked(values);
    if (known_.size() < kMostKnown) known_.emplace(key, &figure);
    return &figure;
  }

 private:
  // Of look-ups that are kept. Figures are fewer: values of the first label beyond the most share one.
  static constexpr std::size_t kMostKnown = 20'000;

  static std::string KeyOf(LabelValues values) {
    std::string key;
    for (const std::string_view value : values) key.append(value).push_back('\xff');
    return key;
  }

  // Or finds it, for the family keeps one of each kind.
  Figure& MakeLocked(LabelValues values) ABSL_EXCLUSIVE_LOCKS_REQUIRED(mutex_) {
    prometheus::Labels labels;
    std::size_t at = 0;
    for (const std::string_view value : values) labels[labels_[at++]] = value;
    if (!labels_.empty()) {
      std::string& first = labels[labels_.front()];
      if (first_values_.size() < most_) first_values_.insert(first);
      if (first_values_.count(first) == 0) first = kOther;
    }
    return make_(family_, labels, bounds_);
  }

  Family<Figure>& family_;
  const std::vector<std::string> labels_;
  const std::vector<double> bounds_;
  const std::size_t most_;
  const Make make_;
  absl::Mutex mutex_;
  std::unordered_map<std::string, Figure*> known_ ABSL_GUARDED_BY(mutex_);
  std::set<std::string> first_values_ ABSL_GUARDED_BY(mutex_);
};

template <typename Figure>
Figure& Plain(Family<Figure>& family, const prometheus::Labels& labels, const std::vector<double>&) {
  return family.Add(labels);
}

prometheus::Histogram& WithBounds(Family<prometheus::Histogram>& family, const prometheus::Labels& labels,
                                  const std::vector<double>& bounds) {
  return family.Add(labels, bounds);
}

// The family of that name, which is made if it is new. Never destroyed.
template <typename Figure, typename Build>
void* FamilyOf(const std::string& name, const std::string& help, std::vector<std::string> labels,
               std::vector<double> bounds, std::size_t most, typename Figures<Figure>::Make make, const Build& build) {
  static auto& mutex = *new absl::Mutex;
  static auto& families = *new std::map<std::string, Figures<Figure>*>;
  const absl::MutexLock lock(&mutex);
  Figures<Figure>*& figures = families[name];
  if (figures != nullptr) return figures;
  try {
    auto& family = build().Name(name).Help(help).Register(TheRegistry());
    figures = new Figures<Figure>(family, std::move(labels), std::move(bounds), most, make);
  } catch (const std::exception& error) {
    Refuse(name, error.what());
  }
  return figures;
}

template <typename Figure>
Figure* FigureOf(void* family, LabelValues values) {
  return static_cast<Figures<Figure>*>(family)->With(values);
}

}  // namespace

void Counter::Add(double amount) const { static_cast<prometheus::Counter*>(figure_)->Increment(amount); }

void Gauge::Add(double amount) const { static_cast<prometheus::Gauge*>(figure_)->Increment(amount); }

void Gauge::Set(double value) const { static_cast<prometheus::Gauge*>(figure_)->Set(value); }

void Histogram::Observe(double value) const { static_cast<prometheus::Histogram*>(figure_)->Observe(value); }

Counters::Counters(const std::string& name, const std::string& help, std::vector<std::string> labels, std::size_t most)
    : family_(FamilyOf<prometheus::Counter>(name, help, std::move(labels), {}, most, Plain<prometheus::Counter>,
                                            prometheus::BuildCounter)) {}

Counter Counters::With(LabelValues values) const { return Counter(FigureOf<prometheus::Counter>(family_, values)); }

Gauges::Gauges(const std::string& name, const std::string& help, std::vector<std::string> labels, std::size_t most)
    : family_(FamilyOf<prometheus::Gauge>(name, help, std::move(labels), {}, most, Plain<prometheus::Gauge>,
                                          prometheus::BuildGauge)) {}

Gauge Gauges::With(LabelValues values) const { return Gauge(FigureOf<prometheus::Gauge>(family_, values)); }

Histograms::Histograms(const std::string& name, const std::string& help, std::vector<std::string> labels,
                       std::vector<double> bounds, std::size_t most)
    : family_(FamilyOf<prometheus::Histogram>(name, help, std::move(labels), std::move(bounds), most, WithBounds,
                                              prometheus::BuildHistogram)) {}

Histogram Histograms::With(LabelValues values) const {
  return Histogram(FigureOf<prometheus::Histogram>(family_, values));
}

std::string MetricsText() {
  klbase_internal::UpdateProcessFigures();
  std::vector<prometheus::MetricFamily> families = TheRegistry().Collect();
  std::sort(families.begin(), families.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
  std::ostringstream text;
  prometheus::TextSerializer().Serialize(text, families);
  return text.str();
}

}  // namespace klbase
