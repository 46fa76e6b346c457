#pragma once

#include <cstddef>
#include <new>

namespace Nubo::ServiceDiscovery::Testing {

/// Makes one allocation of the calling thread fail while the object exists: the n-th from now on, counted
/// from 1. All others succeed, so that code that cleans up after the failure can allocate.
///
///     FailingAllocation fail(3);
///     object.change();
///     … fail.happened()
///
/// Counts every form of operator new; one with std::nothrow returns null, the others throw std::bad_alloc.
/// Memory that malloc() gives and objects aligned above alignof(std::max_align_t) never fail. One object at a
/// time and thread. A program links kel_sd_failing_allocations, which replaces operator new and delete.
class FailingAllocation
{
public:
    explicit FailingAllocation(std::size_t n);
    ~FailingAllocation();

    FailingAllocation(const FailingAllocation&) = delete;
    FailingAllocation& operator=(const FailingAllocation&) = delete;

    /// Whether the allocation has failed.
    bool happened() const;
};

/// Calls `attempt` with its n-th allocation failing, and returns whether it made that many. Catches
/// std::bad_alloc. To let each allocation fail once:
///
///     for (std::size_t n = 1; failsAtAllocation(n, [&] { object.change(); }); ++n)
///         EXPECT_EQ(object, unchanged);
template <class Attempt>
bool failsAtAllocation(std::size_t n, Attempt attempt)
{
    const FailingAllocation fail(n);
    try {
        attempt();
    }
    catch (const std::bad_alloc&) {
    }
    return fail.happened();
}

}  // namespace Nubo::ServiceDiscovery::Testing
