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

/// Handles the platform's reports of interfaces in their order, on one thread at a time: the one at work.
/// That thread also handles the reports that arrive meanwhile. So a reporting thread never waits for another
/// one, although a platform may report while it holds locks, or from within a log line. If another thread
/// waits for its turn, that thread handles the rest. A thread that is also at work for another queue stops
/// when its own reports are handled: otherwise the reports of other threads could keep it from its other work
/// forever.
///
/// Thread-safe. A thread at work may call report() only.
class ReportQueue
{
public:
    /// Maximum number of waiting reports, and of reports from within log lines that a thread can make while
    /// it is at work for any queue: a log channel that reports on each line would keep it at work for ever.
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
    /// Makes another thread handle the waiting reports. Called when a work ends before they are handled. Must
    /// not throw.
    using LeaveRest = std::function<void()>;

    /// A thread at work is marked as working for `part` of the engine.
    ReportQueue(const void* part, Handler handler, LeaveRest leaveRest);

    ReportQueue(const ReportQueue&) = delete;
    ReportQueue& operator=(const ReportQueue&) = delete;

    /// Handles the report, or leaves it to the thread at work. Throws std::bad_alloc if memory is too short
    /// to keep it.
    void report(Report report);

    /// Waits until no thread is at work, and runs an action that must not run while a report is handled. Then
    /// handles reports for at most half a second, and leaves the rest.
    void work(const std::function<void()>& action);

    /// Waits until no thread is at work. None begins while the lock is held. Never log while holding it.
    std::unique_lock<std::mutex> idle();
    /// Call it with that lock.
    bool unsafe_areWaiting() const { return !m_reports.empty(); }

private:
    class Work;

    /// How long a work handles reports.
    enum class Extent : std::uint8_t
    {
        All,
        Own,  ///< until the reports of the thread at work are handled
        HalfASecond
    };

    bool put(Report report);
    bool unsafe_cancels(const Report& report);
    void handleAll(Extent extent) noexcept;

    const void* const m_part;
    const Handler m_handler;
    const LeaveRest m_leaveRest;
    std::mutex m_mutex;  // guards the members below; never log while holding it
    std::condition_variable m_ended;
    bool m_isAtWork = false;  // a thread is
    std::thread::id m_atWork;
    unsigned m_turns = 0;  // number of threads that wait to be at work
    std::deque<Report> m_reports;
    std::size_t m_taken = 0;     // number of reports that have been taken from the front so far
    std::size_t m_ownUntil = 0;  // what m_taken becomes with the last report of the thread at work
    std::size_t m_dropped = 0;   // refused reports, not yet logged
    bool m_areNestedDropped = false;
};

}  // namespace Nubo::ServiceDiscovery::Multicast
