#include "support/Process.h"

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>

#include <arpa/inet.h>
#include <malloc.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

extern "C" std::size_t __sanitizer_get_current_allocated_bytes();

namespace Nubo::ServiceDiscovery::Testing {

namespace {

std::size_t entriesIn(const char* folder)
{
    return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(folder), {}));
}

/// ThreadSanitizer starts a thread of its own along with the first that the process starts.
void startSanitizersThread()
{
    std::string task;
    std::thread([&task] { task = "/proc/self/task/" + std::to_string(::gettid()); }).join();
    while (std::filesystem::exists(task))
        std::this_thread::yield();
}

}  // namespace

std::size_t runningThreads()
{
    static const bool isStarted = (startSanitizersThread(), true);
    static_cast<void>(isStarted);
    return entriesIn("/proc/self/task");
}

std::size_t openDescriptors()
{
    return entriesIn("/proc/self/fd") - 1;  // without the folder's own
}

int socketAt(std::uint16_t port)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        const int descriptor = std::stoi(entry.path().filename());
        sockaddr_in6 address{};
        socklen_t size = sizeof address;
        if (::getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &size) == 0 &&
            address.sin6_family == AF_INET6 && ntohs(address.sin6_port) == port)
            return descriptor;
    }
    throw std::runtime_error("no socket is bound to port " + std::to_string(port));
}

std::size_t heapInUse()
{
    // Sanitizers have an allocator of their own.
    if constexpr (isSanitized)
        return __sanitizer_get_current_allocated_bytes();
    else
        return ::mallinfo2().uordblks;
}

std::size_t residentMemory()
{
    std::size_t size = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> size >> resident;
    return resident * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

bool isAsleep(const std::string& thread)
{
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string number;
        std::string name;
        std::string state;
        std::ifstream(task.path() / "stat") >> number >> name >> state;
        if (name == "(" + thread + ")")
            return state == "S";
    }
    return false;
}

ProcessorTimes processorTimes()
{
    ProcessorTimes times;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string name;
        std::ifstream(task.path() / "comm") >> name;
        std::uint64_t nanoseconds = 0;
        std::ifstream(task.path() / "schedstat") >> nanoseconds;
        times[name] += std::chrono::nanoseconds(nanoseconds);
    }
    return times;
}

}  // namespace Nubo::ServiceDiscovery::Testing
