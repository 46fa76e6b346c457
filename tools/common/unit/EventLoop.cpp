#include "unit/EventLoop.h"

#include <algorithm>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace NuboSd {

namespace {

/// The time left in milliseconds, rounded up; -1 without deadline.
int timeout(const EventLoop::Deadline& deadline)
{
    if (!deadline)
        return -1;
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(*deadline - EventLoop::Clock::now()).count();
    constexpr long long longest = 3'600'000;  // then the deadline is checked again
    return static_cast<int>(std::clamp<long long>(left, 0, longest));
}

}  // namespace

EventLoop::EventLoop() : m_wakeUps(::eventfd(0, EFD_CLOEXEC))
{
    if (m_wakeUps < 0)
        throw std::system_error(errno, std::generic_category());
}

EventLoop::~EventLoop()
{
    ::close(m_wakeUps);
}

void EventLoop::wake()
{
    ::eventfd_write(m_wakeUps, 1);
}

EventLoop::Reason EventLoop::wait(const Deadline& deadline, const std::vector<int>& descriptors)
{
    std::vector<pollfd> polled{{m_signals.descriptor(), POLLIN, 0}, {m_wakeUps, POLLIN, 0}};
    for (const int descriptor : descriptors)
        polled.push_back({descriptor, POLLIN, 0});
    for (;;) {
        if (::poll(polled.data(), polled.size(), timeout(deadline)) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category());
        if (polled[0].revents != 0)
            return Reason::Signal;
        if (polled[1].revents != 0) {
            eventfd_t count = 0;
            ::eventfd_read(m_wakeUps, &count);
            return Reason::Woken;
        }
        if (std::any_of(polled.begin(), polled.end(), [](const pollfd& one) { return one.revents != 0; }))
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
