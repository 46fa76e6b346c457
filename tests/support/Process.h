#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

/// What the test's own process has in use.
namespace Nubo::ServiceDiscovery::Testing {

/// Sanitizers make the library several times slower.
#if defined(__clang__)
constexpr bool isSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

/// How many threads run.
std::size_t runningThreads();

/// How many descriptors are open.
std::size_t openDescriptors();

/// Whether the process's thread of that name waits for something.
bool isAsleep(const std::string& thread);

/// The process's socket that is bound to that port of IPv6. Throws std::runtime_error when there is none.
int socketAt(std::uint16_t port);

/// Bytes of the heap that are allocated.
std::size_t heapInUse();

/// Bytes of the machine's memory.
std::size_t residentMemory();

/// What each thread has had of a processor, by its name.
using ProcessorTimes = std::map<std::string, std::chrono::duration<double, std::milli>>;
ProcessorTimes processorTimes();

}  // namespace Nubo::ServiceDiscovery::Testing
