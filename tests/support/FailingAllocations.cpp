#include "support/FailingAllocations.h"

#include "support/OperatorNew.h"

#include <cstdlib>
#include <stdexcept>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// Number of the thread's allocation that fails, counted from 1. With 0, none fails, or it has failed
/// already.
thread_local std::size_t untilFailure = 0;
thread_local bool isArmed = false;

}  // namespace

void* newMemory(std::size_t size) noexcept
{
    if (untilFailure > 0 && --untilFailure == 0)
        return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

FailingAllocation::FailingAllocation(std::size_t n)
{
    if (n == 0 || isArmed)
        throw std::logic_error("FailingAllocation counts from 1, and one at a time");
    isArmed = true;
    untilFailure = n;
}

FailingAllocation::~FailingAllocation()
{
    isArmed = false;
    untilFailure = 0;
}

bool FailingAllocation::happened() const
{
    return untilFailure == 0;
}

}  // namespace Nubo::ServiceDiscovery::Testing
