#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

/// Resources that the test's process uses.
namespace Nubo::ServiceDiscovery::Testing {

/// Sanitizers make the library several times slower.
#if defined(__clang__)
constexpr bool isSanitized = __has_feature(address_sanitizer) || __has_feature(thread_sanitizer);
#elif defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool isSanitized = true;
#else
constexpr bool isSanitized = false;
#endif

/// Number of running threads.
std::size_t runningThreads();

/// The name of the calling thread.
std::string threadName();

/// Number of open descriptors.
std::size_t openDescriptors();

/// Whether the process has a thread of that name that waits for something.
bool isAsleep(const std::string& thread);

/// Whether all threads but the calling one wait for something.
bool areOtherThreadsAsleep();

/// The process's socket that is bound to that IPv6 port. Throws std::runtime_error if there is none.
int socketAt(std::uint16_t port);

/// Allocated bytes of the heap.
std::size_t heapInUse();

/// Resident memory, in bytes.
std::size_t residentMemory();

/// Processor time of each thread, by the thread's name.
using ProcessorTimes = std::map<std::string, std::chrono::duration<double, std::milli>>;
ProcessorTimes processorTimes();

}  // namespace Nubo::ServiceDiscovery::Testing
