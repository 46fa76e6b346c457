// In place of the standard library's. All forms are here: a sanitizer has its own of each, and takes memory
// that one of them allocates and one of these frees for an error.

#include "support/OperatorNew.h"

#include <cstdlib>
#include <new>

using Nubo::ServiceDiscovery::Testing::newMemory;

void* operator new(std::size_t size)
{
    if (void* const memory = newMemory(size))
        return memory;
    throw std::bad_alloc();
}

void* operator new[](std::size_t size)
{
    return operator new(size);
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    return newMemory(size);
}

void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    return newMemory(size);
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
