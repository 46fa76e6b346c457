#include "Multicast/ReportQueue.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"

#include <chrono>
#include <utility>

namespace Nubo::ServiceDiscovery::Multicast {

using std::chrono::milliseconds;

namespace {

constexpr milliseconds longestHandling{500};

/// The calling thread's work for all queues. Several engines may share a log channel.
thread_local std::size_t works = 0;   // nested ones
thread_local std::size_t nested = 0;  // reports during the outermost one

}  // namespace

/// Marks the calling thread as the one at work.
class ReportQueue::Work : public EngineFrame
{
public:
    Work(ReportQueue& queue, milliseconds handling)
        : EngineFrame(queue.m_part)
        , m_queue(queue)
        , m_handling(handling)
    {
        if (works++ == 0)
            nested = 0;
    }
    ~Work() override
    {
        m_queue.handleWaiting(m_handling);
        --works;
    }

private:
    ReportQueue& m_queue;
    const milliseconds m_handling;
};

ReportQueue::ReportQueue(const void* part, Handler handler, LeaveRest leaveRest)
    : m_part(part)
    , m_handler(std::move(handler))
    , m_leaveRest(std::move(leaveRest))
{}

void ReportQueue::report(Report report)
{
    const bool mayHandle = !EngineFrame::isWorkOnThisThread();
    if (put(std::move(report), mayHandle))
        const Work work(*this, mayHandle ? longestHandling : milliseconds(0));
}

/// Returns whether the calling thread is at work from now on, because no other thread is or waits to be.
bool ReportQueue::put(Report report, bool mayHandle)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool isBusy = m_isAtWork || m_turns != 0;
    const bool isLeft = isBusy || !mayHandle;
    if (isLeft && unsafe_cancels(report))
        return false;
    const bool isOneNestedTooMany = works != 0 && nested == mostNested;
    if (isOneNestedTooMany || (isLeft && m_reports.size() >= mostWaiting)) {
        ++m_dropped;  // not logged here, because the log line might cause the next report
        m_areNestedDropped = isOneNestedTooMany;
        return false;
    }
    m_reports.push_back(std::move(report));
    nested += works != 0 ? 1 : 0;
    if (isBusy)
        return false;
    return m_isAtWork = true;
}

/// If the last waiting report is the opposite of this one, and the one before it is the same, removes the
/// last one and returns true. So a platform that keeps reporting one interface does not fill the queue.
bool ReportQueue::unsafe_cancels(const Report& report)
{
    const auto isLike = [&](const Report& other, bool isTakenBack) {
        return other.isTakenBack == isTakenBack && other.name == report.name && other.ip == report.ip;
    };
    const std::size_t size = m_reports.size();
    if (size < 2 || !isLike(m_reports[size - 1], !report.isTakenBack) ||
        !isLike(m_reports[size - 2], report.isTakenBack))
        return false;
    m_reports.pop_back();
    return true;
}

void ReportQueue::work(const std::function<void()>& action)
{
    std::unique_lock<std::mutex> lock = idle();
    m_isAtWork = true;
    lock.unlock();
    const Work work(*this, longestHandling);
    action();
}

std::unique_lock<std::mutex> ReportQueue::idle()
{
    std::unique_lock<std::mutex> lock(m_mutex);
    ++m_turns;
    m_ended.wait(lock, [this] { return !m_isAtWork; });
    --m_turns;
    return lock;
}

/// Handles the waiting reports, including those that arrive meanwhile, and ends the work. Unless the time is
/// zero, it handles at least one.
void ReportQueue::handleWaiting(milliseconds atMost) noexcept
{
    using std::chrono::steady_clock;
    const auto begin = steady_clock::now();
    bool isDropLogged = false;
    bool isFirst = atMost.count() != 0;
    std::unique_lock<std::mutex> lock(m_mutex);
    while ((isFirst || (m_turns == 0 && steady_clock::now() - begin < atMost)) &&
           (!m_reports.empty() || (m_dropped != 0 && !isDropLogged)))
    {
        isFirst = false;
        if (!m_reports.empty()) {
            const Report report = std::move(m_reports.front());
            m_reports.pop_front();
            lock.unlock();
            m_handler(report);
        }
        else {
            isDropLogged = true;
            const std::size_t dropped = m_dropped;
            const bool areNested = m_areNestedDropped;
            m_dropped = 0;
            lock.unlock();
            SD_LOG(Error) << "SDCommunicationHub - " << dropped
                          << " reports of interfaces are dropped: " << (areNested ? mostNested : mostWaiting)
                          << (areNested ? " others were made from within lines of the log."
                                        : " others were waiting.");
        }
        lock.lock();
    }
    if (!m_reports.empty()) {
        lock.unlock();
        m_leaveRest();
        lock.lock();
    }
    m_isAtWork = false;
    m_ended.notify_all();
}

}  // namespace Nubo::ServiceDiscovery::Multicast
