// Order statistics over a set of samples. The vectors are taken by value:
// callers keep their samples in arrival order.
#ifndef COMMSCHANNEL_BENCH_STATS_H
#define COMMSCHANNEL_BENCH_STATS_H

#include <vector>

namespace bench {

// Nearest-rank percentile, p in [0, 100]; 0 for no samples.
double percentile(std::vector<double> samples, double p);
double median(std::vector<double> samples);
double minimum(const std::vector<double>& samples);
double maximum(const std::vector<double>& samples);

}  // namespace bench

#endif
