// Medians and percentiles of samples.
#pragma once

#include <algorithm>
#include <vector>

/// The value below which that part of the samples lies; 0 without samples.
inline double quantile(std::vector<double> samples, double part)
{
    if (samples.empty())
        return 0;
    const auto index = static_cast<size_t>(part * static_cast<double>(samples.size() - 1) + 0.5);
    const auto at = samples.begin() + static_cast<std::ptrdiff_t>(index);
    std::nth_element(samples.begin(), at, samples.end());
    return *at;
}

inline double median(const std::vector<double>& samples)
{
    return quantile(samples, 0.5);
}

inline double percentile99(const std::vector<double>& samples)
{
    return quantile(samples, 0.99);
}

/// Samples of the two sides of an alternation.
struct Sides {
    std::vector<double> ptzd;
    std::vector<double> bare;

    /// Median of the ratios of neighbouring samples, which a slow drift of the machine leaves alone.
    [[nodiscard]] double ratio() const
    {
        std::vector<double> ratios;
        for (size_t i = 0; i < ptzd.size() && i < bare.size(); ++i)
            ratios.push_back(ptzd[i] / bare[i]);
        return median(ratios);
    }
};
