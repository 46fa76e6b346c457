// Counts the work of the instrumented code. This file itself is not instrumented.

#include "cost/Work.h"

#include "support/OperatorNew.h"

#include <cstdlib>

namespace {

/// Approximate cost of one allocation, in accesses to memory.
constexpr std::uint64_t allocationWork = 25;

std::uint64_t work = 0;

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

void* Nubo::ServiceDiscovery::Testing::newMemory(std::size_t size) noexcept
{
    work += allocationWork;
    return std::malloc(size == 0 ? 1 : size);  // NOLINT(*-no-malloc)
}
