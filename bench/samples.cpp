#include "bench/samples.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

double quantile(std::vector<double> values, double q) {
  const auto rank = static_cast<std::size_t>(std::ceil(q * static_cast<double>(values.size())));
  const auto place = values.begin() + static_cast<std::ptrdiff_t>(std::max<std::size_t>(rank, 1) - 1);
  std::nth_element(values.begin(), place, values.end());
  return *place;
}

double median(const std::vector<double>& values) {
  return quantile(values, 0.5);
}
