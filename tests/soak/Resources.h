#pragma once

#include <cstddef>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// Resources that the process holds at an instant.
struct Resources
{
    double resident = 0;   ///< memory in MiB, excluding what the allocator can return to the system
    double allocated = 0;  ///< on the heap, in MiB
    std::size_t descriptors = 0;
    std::size_t threads = 0;

    static Resources current();
};

/// A measured value, and the time of the measurement in seconds since the start.
struct Sample
{
    double at;
    double value;
};

double meanOf(const std::vector<Sample>& samples);

/// Rise of the samples from the first to the last, in percent of their mean, along the straight line that
/// fits them best.
double driftOf(const std::vector<Sample>& samples);

/// The samples after the first quarter of the time.
std::vector<Sample> afterWarmUp(const std::vector<Sample>& samples);

}  // namespace Nubo::ServiceDiscovery::Testing
