#pragma once

#include "unit/Signals.h"

#include <chrono>
#include <csignal>
#include <optional>
#include <vector>

namespace NuboSd {

/// Where the main thread waits: for a signal that ends the run, for another thread that has something for
/// it, for a deadline. To be made before any thread is started: it blocks SIGINT, SIGTERM and SIGHUP for all.
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

    /// Throws std::system_error when the system gives no descriptors.
    EventLoop();
    ~EventLoop();

    EventLoop(const EventLoop&) = delete;
    EventLoop& operator=(const EventLoop&) = delete;

    /// Lets wait() return, now or when it is called next. From any thread.
    void wake();

    /// Also returns when one of the descriptors is readable.
    Reason wait(const Deadline& deadline, const std::vector<int>& descriptors = {});

    /// The instant that many seconds from now.
    static Deadline after(double seconds);

private:
    const Signals m_signals{SIGINT, SIGTERM, SIGHUP};
    const int m_wakeUps;
};

}  // namespace NuboSd
