// Order statistics; see Stats.h.
#include "Stats.h"

#include <algorithm>
#include <cmath>

namespace bench {

double percentile(std::vector<double> samples, double p)
{
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const double rank = std::ceil(p / 100.0 * static_cast<double>(samples.size()));
    const std::size_t index = rank < 1 ? 0 : static_cast<std::size_t>(rank) - 1;
    return samples[std::min(index, samples.size() - 1)];
}

double median(std::vector<double> samples)
{
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const std::size_t n = samples.size();
    return n % 2 == 1 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
}

double minimum(const std::vector<double>& samples)
{
    return samples.empty() ? 0 : *std::min_element(samples.begin(), samples.end());
}

double maximum(const std::vector<double>& samples)
{
    return samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
}

}  // namespace bench
