#include "support/Process.h"

#include <filesystem>
#include <iterator>

#include <malloc.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace Nubo::ServiceDiscovery::Testing {

namespace {

std::size_t entriesIn(const char* folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

}  // namespace

std::size_t runningThreads()
{
    return entriesIn("/proc/self/task");
}

std::size_t openDescriptors()
{
    return entriesIn("/proc/self/fd") - 1;  // without the folder's own
}

std::size_t heapInUse()
{
    // Sanitizers have an allocator of their own.
    if constexpr (isSanitized)
        return __sanitizer_get_current_allocated_bytes();
    else
        return ::mallinfo2().uordblks;
}

}  // namespace Nubo::ServiceDiscovery::Testing
