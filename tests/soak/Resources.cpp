#include "soak/Resources.h"

#include "support/Process.h"

#include <algorithm>
#include <iterator>

#include <malloc.h>

namespace Nubo::ServiceDiscovery::Testing {

Resources Resources::current()
{
    ::malloc_trim(0);
    constexpr double mebibyte = 1024 * 1024;
    return {static_cast<double>(residentMemory()) / mebibyte, static_cast<double>(heapInUse()) / mebibyte,
            openDescriptors(), runningThreads()};
}

double meanOf(const std::vector<Sample>& samples)
{
    double sum = 0;
    for (const Sample& sample : samples)
        sum += sample.value;
    return samples.empty() ? 0 : sum / static_cast<double>(samples.size());
}

double driftOf(const std::vector<Sample>& samples)
{
    if (samples.size() < 2)
        return 0;
    const double mean = meanOf(samples);
    const double middle = (samples.front().at + samples.back().at) / 2;
    double covariance = 0;
    double variance = 0;
    for (const Sample& sample : samples) {
        covariance += (sample.at - middle) * (sample.value - mean);
        variance += (sample.at - middle) * (sample.at - middle);
    }
    return covariance / variance * (samples.back().at - samples.front().at) / mean * 100;
}

std::vector<Sample> afterWarmUp(const std::vector<Sample>& samples)
{
    std::vector<Sample> result;
    std::copy_if(samples.begin(), samples.end(), std::back_inserter(result),
                 [&](const Sample& sample) { return sample.at > samples.back().at / 4; });
    return result;
}

}  // namespace Nubo::ServiceDiscovery::Testing
