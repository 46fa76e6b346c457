#include "EventLoop.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace NuboSd {

namespace {

int checked(int descriptor)
{
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category());
    return descriptor;
}

int openSignals()
{
    sigset_t signals;
    ::sigemptyset(&signals);
    ::sigaddset(&signals, SIGINT);
    ::sigaddset(&signals, SIGTERM);
    ::pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    return checked(::signalfd(-1, &signals, SFD_CLOEXEC));
}

/// The time left in milliseconds, rounded up; -1 without deadline.
int timeout(const EventLoop::Deadline& deadline)
{
    if (!deadline)
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - EventLoop::Clock::now()).count();
    constexpr long long longest = 3'600'000;  // then it is looked at again
    return static_cast<int>(std::clamp<long long>(left, 0, longest));
}

}  // namespace

EventLoop::EventLoop() : m_signals(openSignals()), m_wakeUps(checked(::eventfd(0, EFD_CLOEXEC))) {}

EventLoop::~EventLoop()
{
    ::close(m_signals);
    ::close(m_wakeUps);
}

void EventLoop::wake()
{
    ::eventfd_write(m_wakeUps, 1);
}

EventLoop::Reason EventLoop::wait(const Deadline& deadline, int descriptor)
{
    for (;;) {
        std::array<pollfd, 3> descriptors{
            {{m_signals, POLLIN, 0}, {m_wakeUps, POLLIN, 0}, {descriptor, POLLIN, 0}}};
        if (::poll(descriptors.data(), descriptors.size(), timeout(deadline)) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category());
        if (descriptors[0].revents != 0)
            return Reason::Signal;
        if (descriptors[1].revents != 0) {
            eventfd_t count = 0;
            ::eventfd_read(m_wakeUps, &count);
            return Reason::Woken;
        }
        if (descriptors[2].revents != 0)
            return Reason::Readable;
        if (deadline && Clock::now() >= *deadline)
            return Reason::DeadlineReached;
    }
}

EventLoop::Deadline EventLoop::after(double seconds)
{
    constexpr double longest = 100.0 * 365 * 24 * 3600;
    return Clock::now() + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(std::min(seconds, longest)));
}

}  // namespace NuboSd
