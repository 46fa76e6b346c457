#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

namespace Nubo::ServiceDiscovery::Multicast {

/// Handles the platform's reports of interfaces in their order, on one thread at a time: the one at work.
/// That thread also handles the reports that arrive meanwhile. So a reporting thread never waits for another
/// one, although a platform may report while it holds locks, or from within a log line. If another thread
/// waits for its turn, that thread handles the rest. Nobody handles reports for more than half a second, and
/// a thread that already does an engine's work handles none: otherwise the reports of other threads could
/// keep it from that work. The rest is left to the owner of the queue.
///
/// Thread-safe. A thread at work may call report() only.
class ReportQueue
{
public:
    /// Maximum number of waiting reports, and of reports that log lines about one report or action can cause,
    /// on all threads and for all queues together: a log channel that reports on each line would keep them at
    /// work for ever.
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

    /// Handles the report, or leaves it. Throws std::bad_alloc if memory is too short to keep it.
    void report(Report report);

    /// Waits until no thread is at work, and runs an action that must not run while a report is handled. Then
    /// handles reports.
    void work(const std::function<void()>& action);

    /// Waits until no thread is at work. None begins while the lock is held. Never log while holding it.
    std::unique_lock<std::mutex> idle();
    /// Call it with that lock.
    bool unsafe_areWaiting() const { return !m_reports.empty(); }

private:
    class Work;

    /// How many further reports log lines can cause.
    using Budget = std::shared_ptr<std::atomic<std::size_t>>;

    struct Waiting
    {
        Report report;
        Budget budget;
    };

    bool put(Waiting waiting, bool isNested, bool mayHandle);
    bool unsafe_cancels(const Report& report);
    void handleWaiting(std::chrono::milliseconds atMost) noexcept;

    const void* const m_part;
    const Handler m_handler;
    const LeaveRest m_leaveRest;
    std::mutex m_mutex;  // guards the members below; never log while holding it
    std::condition_variable m_ended;
    bool m_isAtWork = false;  // a thread is
    unsigned m_turns = 0;     // number of threads that wait to be at work
    std::deque<Waiting> m_reports;
    std::size_t m_dropped = 0;  // refused reports, not yet logged
    bool m_areNestedDropped = false;
};

}  // namespace Nubo::ServiceDiscovery::Multicast
