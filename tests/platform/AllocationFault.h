#pragma once

#include "support/FailingAllocations.h"

#include <cstddef>
#include <new>
#include <string>

#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Has one allocation fail: the one with the given number, counted from 1, that operator new makes on the
/// calling thread. The program links kel_sd_failing_allocations.
class AllocationFault
{
public:
    explicit AllocationFault(std::size_t number) : m_number(number) {}

    /// Calls `action` with the fault in it. Returns whether it threw std::bad_alloc.
    template <class Action>
    bool strikes(Action action)
    {
        const FailingAllocation fail(m_number);
        const Note note{fail, m_hasStruck};
        try {
            action();
        }
        catch (const std::bad_alloc&) {
            return true;
        }
        return false;
    }

    /// Whether there was an allocation with that number.
    bool hasStruck() const { return m_hasStruck; }

private:
    struct Note
    {
        ~Note() { hasStruck = hasStruck || fail.happened(); }

        const FailingAllocation& fail;
        bool& hasStruck;
    };

    const std::size_t m_number;
    bool m_hasStruck = false;
};

/// Calls `scenario(fault)` with the first allocation failing, then with the second, until none fails. Returns
/// how many failed.
template <class Scenario>
std::size_t withEachAllocationFailing(Scenario scenario)
{
    constexpr std::size_t limit = 1000;
    for (std::size_t number = 1; number <= limit; ++number) {
        SCOPED_TRACE("failing allocation " + std::to_string(number));
        AllocationFault fault(number);
        scenario(fault);
        if (!fault.hasStruck())
            return number - 1;
    }
    ADD_FAILURE() << "the allocations do not end";
    return limit;
}

}  // namespace Nubo::ServiceDiscovery::Testing
