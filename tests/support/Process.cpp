#include "support/Process.h"

#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

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

/// ThreadSanitizer starts its background thread along with the first thread of the process.
void startSanitizersThread()
{
    std::string task;
    std::thread([&task] { task = "/proc/self/task/" + std::to_string(::gettid()); }).join();
    while (std::filesystem::exists(task))
        std::this_thread::yield();
}

struct ThreadState
{
    std::string number;
    std::string name;  // in parentheses
    bool isAsleep;
};

std::vector<ThreadState> threadStates()
{
    std::vector<ThreadState> states;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::string number;
        std::string name;
        std::string state;
        std::ifstream(task.path() / "stat") >> number >> name >> state;
        states.push_back({number, name, state == "S"});
    }
    return states;
}

}  // namespace

std::size_t runningThreads()
{
    static const bool isStarted = (startSanitizersThread(), true);
    static_cast<void>(isStarted);
    return entriesIn("/proc/self/task");
}

std::string threadName()
{
    std::string name;
    std::getline(std::ifstream("/proc/thread-self/comm"), name);
    return name;
}

std::size_t openDescriptors()
{
    return entriesIn("/proc/self/fd") - 1;  // without the descriptor of the folder itself
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
    // Sanitizers replace the allocator.
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
    const std::vector<ThreadState> threads = threadStates();
    return std::any_of(threads.begin(), threads.end(), [&](const ThreadState& state) {
        return state.name == "(" + thread + ")" && state.isAsleep;
    });
}

bool areOtherThreadsAsleep()
{
    const std::string own = std::to_string(::gettid());
    const std::vector<ThreadState> threads = threadStates();
    return std::all_of(threads.begin(), threads.end(),
                       [&](const ThreadState& state) { return state.number == own || state.isAsleep; });
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
