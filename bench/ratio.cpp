#include "bench/ratio.h"

#include <algorithm>
#include <numeric>

namespace {

double median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

double total(const std::vector<double>& values) {
  return std::accumulate(values.begin(), values.end(), 0.0);
}

}  // namespace

void report_ratio(benchmark::State& state, const std::vector<double>& base,
                  const std::vector<double>& subject) {
  state.counters["base_us"] = median(base) * 1e6;
  state.counters["this_us"] = median(subject) * 1e6;
  state.counters["ratio"] = median(subject) / median(base);
  state.counters["ratio_totals"] = total(subject) / total(base);
}
