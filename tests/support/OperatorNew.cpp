// Replace those of the standard library. All forms are needed: a sanitizer replaces each of them, too, and
// reports an error when one of its forms allocates memory that one of these frees.

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
