#include "AllocationFault.h"

#include <cstdlib>

namespace {

thread_local std::size_t allocationsUntilFault = 0;  ///< 0 when none is to fail
thread_local bool hasFailed = false;

void* allocate(std::size_t size) noexcept
{
    if (allocationsUntilFault != 0 && --allocationsUntilFault == 0) {
        hasFailed = true;
        return nullptr;
    }
    return std::malloc(size == 0 ? 1 : size);
}

void* allocateOrThrow(std::size_t size)
{
    if (void* memory = allocate(size))
        return memory;
    throw std::bad_alloc();
}

}  // namespace

void* operator new(std::size_t size)
{
    return allocateOrThrow(size);
}

void* operator new[](std::size_t size)
{
    return allocateOrThrow(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return allocate(size);
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

namespace Nubo::ServiceDiscovery::Testing {

AllocationFault::Armed::Armed(AllocationFault& owner) : fault(owner)
{
    hasFailed = false;
    allocationsUntilFault = fault.m_number;
}

AllocationFault::Armed::~Armed()
{
    allocationsUntilFault = 0;
    fault.m_hasStruck = fault.m_hasStruck || hasFailed;
}

}  // namespace Nubo::ServiceDiscovery::Testing
