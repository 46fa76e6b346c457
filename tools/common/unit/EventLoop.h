#pragma once

#include "unit/Signals.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <vector>

namespace NuboSd {

/// The main thread waits here for a signal that ends the run, for a wake-up from another thread, or for a
/// deadline. Construct it before any thread is started: it blocks SIGINT, SIGTERM and SIGHUP for all.
class EventLoop
{
public:
    using Clock = std::chrono::steady_clock;
    using Deadline = std::optional<Clock::time_point>;

    enum class Reason
    {
        Woken,
        Readable,
        Signal,
        DeadlineReached
    };

    /// Throws std::system_error when the system has no descriptors left.
    EventLoop();
    ~EventLoop();

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Makes the current or the next wait() return. May be called from any thread.
    void wake();

    /// Also returns when one of the descriptors is readable.
    Reason wait(const Deadline& deadline, const std::vector<int>& descriptors = {});

    /// That many seconds from now.
    static Deadline after(double seconds);

private:
    const Signals m_signals{SIGINT, SIGTERM, SIGHUP};
    const int m_wakeUps;
};

}  // namespace NuboSd
