#include "Multicast/ReportQueue.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <new>
#include <utility>

namespace Nubo::ServiceDiscovery::Multicast {

using std::chrono::milliseconds;

namespace {

constexpr milliseconds longestHandling{500};

/// The budget of what the calling thread handles for any queue. Several engines may share a log channel.
thread_local std::shared_ptr<std::atomic<std::size_t>> current;

std::shared_ptr<std::atomic<std::size_t>> currentOrNew()
{
    return current ? current : std::make_shared<std::atomic<std::size_t>>(ReportQueue::mostNested);
}

const auto exhausted = std::make_shared<std::atomic<std::size_t>>(0);

/// Without memory, log lines can cause no report.
std::shared_ptr<std::atomic<std::size_t>> currentOrNewIfAny() noexcept
{
    try {
        return currentOrNew();
    }
    catch (const std::bad_alloc&) {
        return exhausted;
    }
}

bool takeOne(std::atomic<std::size_t>& budget)
{
    std::size_t left = budget;
    while (left != 0 && !budget.compare_exchange_weak(left, left - 1)) {
    }
    return left != 0;
}

}  // namespace

/// Marks the calling thread as the one at work.
class ReportQueue::Work : public EngineFrame
{
public:
    Work(ReportQueue& queue, Budget budget, milliseconds handling)
        : EngineFrame(queue.m_part)
        , m_queue(queue)
        , m_handling(handling)
        , m_outer(std::exchange(current, std::move(budget)))
    {}
    ~Work() override
    {
        m_queue.handleWaiting(m_handling);
        current = std::move(m_outer);
    }

private:
    ReportQueue& m_queue;
    const milliseconds m_handling;
    Budget m_outer;
};

ReportQueue::ReportQueue(const void* part, Handler handler, LeaveRest leaveRest)
    : m_part(part)
    , m_handler(std::move(handler))
    , m_leaveRest(std::move(leaveRest))
{}

void ReportQueue::report(Report report)
{
    const bool mayHandle = !EngineFrame::isWorkOnThisThread();
    const bool isNested = current != nullptr;
    const Budget budget = currentOrNew();
    if (put({std::move(report), budget}, isNested, mayHandle))
        const Work work(*this, budget, mayHandle ? longestHandling : milliseconds(0));
}

/// Returns whether the calling thread is at work from now on, because no other thread is or waits to be.
bool ReportQueue::put(Waiting waiting, bool isNested, bool mayHandle)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool isBusy = m_isAtWork || m_turns != 0;
    const bool isLeft = isBusy || !mayHandle;
    if (isLeft && unsafe_cancels(waiting.report))
        return false;
    const bool isOneNestedTooMany = isNested && !takeOne(*waiting.budget);
    if (isOneNestedTooMany || (isLeft && m_reports.size() >= mostWaiting)) {
        ++m_dropped;  // not logged here, because the log line might cause the next report
        m_areNestedDropped = isOneNestedTooMany;
        return false;
    }
    m_reports.push_back(std::move(waiting));
    if (isBusy)
        return false;
    return m_isAtWork = true;
}

/// If the last waiting report is the opposite of this one, and the one before it is the same, removes the
/// last one and returns true. So a platform that keeps reporting one interface does not fill the queue.
bool ReportQueue::unsafe_cancels(const Report& report)
{
    const auto isLike = [&](const Waiting& other, bool isTakenBack) {
        return other.report.isTakenBack == isTakenBack && other.report.name == report.name &&
               other.report.ip == report.ip;
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
    Budget budget = currentOrNewIfAny();
    std::unique_lock<std::mutex> lock = idle();
    m_isAtWork = true;
    lock.unlock();
    const Work work(*this, std::move(budget), longestHandling);
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
    const auto hasTime = [&] { return isFirst || (m_turns == 0 && steady_clock::now() - begin < atMost); };
    while (m_reports.empty() ? m_dropped != 0 && !isDropLogged : hasTime()) {
        isFirst = false;
        if (!m_reports.empty()) {
            const Waiting waiting = std::move(m_reports.front());
            m_reports.pop_front();
            lock.unlock();
            current = waiting.budget;
            m_handler(waiting.report);
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
