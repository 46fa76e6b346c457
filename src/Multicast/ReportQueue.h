#pragma once

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <thread>

namespace Nubo::ServiceDiscovery::Multicast {

/// Has the platform's reports of interfaces handled in their order by one thread at a time: the one at work.
/// What is reported meanwhile it handles as well before it ends its work, so that a report never waits for
/// another thread: a platform may report with locks held, or from within a line of the log. When another
/// thread waits for its turn, that one handles the rest. A thread that is at work for another queue as well
/// leaves it, too, once its own reports are handled: those of others might keep it from that work for ever.
///
/// Safe to use from any thread. Only report() may be called by a thread that is at work.
class ReportQueue
{
public:
    /// No more reports wait than that, and no more does a thread make from within lines of the log while it
    /// is at work, for whatever queue: a log channel that reports with each line would keep it so for ever.
    static constexpr std::size_t mostWaiting = 16384;
    static constexpr std::size_t mostNested = 1024;

    struct Report
    {
        bool isTakenBack;
        std::string name;
        std::string ip;
    };
    /// Never throws.
    using Handler = std::function<void(const Report&)>;
    /// Has what waits handled by another thread. Called at the end of a work that leaves it. Never throws.
    using LeaveRest = std::function<void()>;

    /// Threads at work are marked as working for the part of the engine.
    ReportQueue(const void* part, Handler handler, LeaveRest leaveRest);

    ReportQueue(const ReportQueue&) = delete;
    ReportQueue& operator=(const ReportQueue&) = delete;

    /// Handles the report, unless somebody is at work, who does so then. Throws std::bad_alloc if there is no
    /// memory to keep it.
    void report(Report report);

    /// Waits until nobody is at work, and does something that must not be done beside a report. It handles
    /// reports for half a second at most, and leaves the rest.
    void work(const std::function<void()>& action);

    /// Waits until nobody is at work. Nobody begins while the lock is held; nothing may be logged then.
    std::unique_lock<std::mutex> idle();
    /// To be called with that lock.
    bool unsafe_areWaiting() const { return !m_reports.empty(); }

private:
    class Work;

    /// What is handled before a work ends.
    enum class Extent : std::uint8_t
    {
        All,
        Own,  ///< until those of the thread at work are
        HalfASecond
    };

    struct Waiting
    {
        Report report;
        bool isOwn;  ///< of the thread at work
    };

    bool put(Report report);
    bool unsafe_cancels(const Report& report);
    void handleAll(Extent extent) noexcept;

    const void* const m_part;
    const Handler m_handler;
    const LeaveRest m_leaveRest;
    std::mutex m_mutex;  // guards what follows; nothing is logged under it
    std::condition_variable m_ended;
    bool m_isAtWork = false;  // somebody
    std::thread::id m_atWork;
    unsigned m_turns = 0;  // that threads wait for
    std::deque<Waiting> m_reports;
    std::size_t m_own = 0;      // of them
    std::size_t m_dropped = 0;  // reports that were not taken, until that is logged
    bool m_areNestedDropped = false;
};

}  // namespace Nubo::ServiceDiscovery::Multicast
