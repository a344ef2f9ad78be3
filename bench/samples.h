// Times, and what is said about many of them.
#pragma once

#include <chrono>
#include <vector>

inline constexpr double kMicro = 1e-6;

// Seconds that `action` takes.
template <typename Action>
double seconds_for(Action&& action) {
  const auto begin = std::chrono::steady_clock::now();
  action();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

// The value that the share `q` (0 to 1) of all values does not exceed. There must be one.
double quantile(std::vector<double> values, double q);
double median(const std::vector<double>& values);
