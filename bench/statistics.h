// Quantiles of samples.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <vector>

namespace bench {

// The smallest sample that at least the `share` (0 to 1) of the samples does not exceed; 0 without
// samples.
inline double quantile(std::vector<double> samples, double share) {
    if (samples.empty()) {
        return 0;
    }
    const auto rank =
        static_cast<std::size_t>(std::ceil(share * static_cast<double>(samples.size())));
    const auto index = static_cast<std::ptrdiff_t>(rank == 0 ? 0 : rank - 1);
    std::nth_element(samples.begin(), samples.begin() + index, samples.end());
    return samples[static_cast<std::size_t>(index)];
}

inline double median(const std::vector<double> &samples) {
    return quantile(samples, 0.5);
}

} // namespace bench
