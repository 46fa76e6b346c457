#pragma once

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <system_error>

#include <sys/syscall.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

/// Makes the kernel send the calling thread a signal every millisecond, as a profiler does, until the object
/// is destroyed or `most` signals have arrived. Only one object may exist at a time.
class ThreadSignals
{
public:
    explicit ThreadSignals(int most)
    {
        left = most;
        m_most = most;
        struct sigaction action = {};
        action.sa_handler = &ThreadSignals::handle;  // stays set: a signal may still be pending at the end
        action.sa_flags = SA_RESTART;
        sigevent event{};
        event.sigev_notify = SIGEV_THREAD_ID;
        event.sigev_signo = SIGUSR1;
        event._sigev_un._tid = static_cast<pid_t>(::syscall(SYS_gettid));
        constexpr itimerspec everyMillisecond{{0, 1'000'000}, {0, 1'000'000}};
        if (::sigaction(SIGUSR1, &action, nullptr) != 0 ||
            ::timer_create(CLOCK_MONOTONIC, &event, &timer) != 0 ||
            ::timer_settime(timer, 0, &everyMillisecond, nullptr) != 0)
            throw std::system_error(errno, std::generic_category(), "timer");
    }
    ~ThreadSignals() { ::timer_delete(timer); }

    ThreadSignals(const ThreadSignals&) = delete;
    ThreadSignals& operator=(const ThreadSignals&) = delete;

    int count() const { return m_most - left; }

private:
    static void handle(int /*signal*/)
    {
        constexpr itimerspec never{};
        if (left > 0 && --left == 0)
            ::timer_settime(timer, 0, &never, nullptr);
    }

    inline static std::atomic<int> left{0};
    inline static timer_t timer{};
    int m_most;
};

}  // namespace Nubo::ServiceDiscovery::Testing
