#include "support/FailingAllocations.h"

#include <cstdlib>
#include <stdexcept>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

/// Which allocation of the thread fails, counted from 1. At 0 none does, or it has failed already.
thread_local std::size_t untilFailure = 0;
thread_local bool isArmed = false;

void* allocate(std::size_t size) noexcept
{
    if (untilFailure > 0 && --untilFailure == 0)
        return nullptr;
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size)
{
    if (void* const memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

}  // namespace

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

// In place of the standard library's. All forms are here: a sanitizer has its own of each, and takes memory
// that one of them allocates and one of these frees for an error.

namespace Testing = Nubo::ServiceDiscovery::Testing;

void* operator new(std::size_t size)
{
    return Testing::allocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return Testing::allocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return Testing::allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return Testing::allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, const std::nothrow_t&) noexcept
{
    std::free(memory);
}
