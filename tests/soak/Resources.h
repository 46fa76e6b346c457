#pragma once

#include <cstddef>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// What the process holds at an instant.
struct Resources
{
    double resident = 0;   ///< memory in MiB, without what the allocator can give back
    double allocated = 0;  ///< on the heap, in MiB
    std::size_t descriptors = 0;
    std::size_t threads = 0;

    static Resources current();
};

/// A measured value and the seconds after the beginning at which it was taken.
struct Sample
{
    double at;
    double value;
};

double meanOf(const std::vector<Sample>& samples);

/// By how many percent of their mean the samples rise from the first to the last, along the straight line
/// that fits them best.
double driftOf(const std::vector<Sample>& samples);

/// Those that follow the first quarter of the time.
std::vector<Sample> afterWarmUp(const std::vector<Sample>& samples);

}  // namespace Nubo::ServiceDiscovery::Testing
