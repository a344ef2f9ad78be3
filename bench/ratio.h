// What every comparison reports.
#pragma once

#include <benchmark/benchmark.h>

#include <vector>

// Sets the counters of one repetition from the times, in seconds, of the two sides that took turns: base_us
// and this_us (medians), ratio (of the medians) and ratio_totals (of the sums).
void report_ratio(benchmark::State& state, const std::vector<double>& base,
                  const std::vector<double>& subject);
