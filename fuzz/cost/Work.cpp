// Counts what the instrumented code does. This file is not instrumented itself.

#include "cost/Work.h"

#include <cstdlib>
#include <new>

namespace {

/// About what one costs, in accesses to memory.
constexpr std::uint64_t allocationWork = 25;

std::uint64_t work = 0;

void* allocate(std::size_t size)
{
    work += allocationWork;
    if (void* memory = std::malloc(size))  // NOLINT(*-no-malloc)
        return memory;
    throw std::bad_alloc();
}

}  // namespace

namespace Nubo::ServiceDiscovery::Fuzzing {

std::uint64_t workDone()
{
    return work;
}

}  // namespace Nubo::ServiceDiscovery::Fuzzing

// NOLINTBEGIN(bugprone-reserved-identifier) the compiler's names
extern "C" {
void __sanitizer_cov_load1(void*)
{
    ++work;
}
void __sanitizer_cov_load2(void*)
{
    ++work;
}
void __sanitizer_cov_load4(void*)
{
    ++work;
}
void __sanitizer_cov_load8(void*)
{
    ++work;
}
void __sanitizer_cov_load16(void*)
{
    ++work;
}
void __sanitizer_cov_store1(void*)
{
    ++work;
}
void __sanitizer_cov_store2(void*)
{
    ++work;
}
void __sanitizer_cov_store4(void*)
{
    ++work;
}
void __sanitizer_cov_store8(void*)
{
    ++work;
}
void __sanitizer_cov_store16(void*)
{
    ++work;
}
}
// NOLINTEND(bugprone-reserved-identifier)

// The library's code is linked in, so these are its allocations as well.
void* operator new(std::size_t size)
{
    return allocate(size);
}
void* operator new[](std::size_t size)
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
