#include "Multicast/ReportQueue.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"

#include <chrono>
#include <utility>

namespace Nubo::ServiceDiscovery::Multicast {

namespace {

constexpr long unlimited = -1;
constexpr long longestHandling = 500;  // in milliseconds

}  // namespace

/// Marks the calling thread as the one at work. If it ends the process, for example from within a log line,
/// other threads can go to work.
class ReportQueue::Work : public EngineFrame
{
public:
    Work(ReportQueue& queue, long atMostMilliseconds)
        : EngineFrame(queue.m_part)
        , m_queue(queue)
        , m_atMost(atMostMilliseconds)
    {}
    ~Work() override { m_queue.handleAll(m_atMost); }

private:
    void release() noexcept override
    {
        const std::lock_guard<std::mutex> lock(m_queue.m_mutex);
        m_queue.unsafe_end();
    }

    ReportQueue& m_queue;
    const long m_atMost;
};

ReportQueue::ReportQueue(const void* part, Handler handler) : m_part(part), m_handler(std::move(handler)) {}

void ReportQueue::report(Report report)
{
    if (put(std::move(report)))
        const Work work(*this, unlimited);
}

/// Returns whether the calling thread is at work from now on, because no other thread is or waits to be.
bool ReportQueue::put(Report report)
{
    const bool isNested = EngineFrame::isOnThisThread();
    const std::lock_guard<std::mutex> lock(m_mutex);
    const bool isBusy = m_isAtWork || m_turns != 0;
    if (isBusy && unsafe_cancels(report))
        return false;
    if (isBusy && (m_reports.size() >= mostWaiting || (isNested && m_nested == mostNested))) {
        ++m_dropped;  // not logged here, because the log line might cause the next report
        return false;
    }
    m_reports.push_back(std::move(report));
    if (isBusy) {
        m_nested += isNested ? 1 : 0;
        return false;
    }
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

/// Handles the waiting reports, including those that arrive meanwhile, and ends the work.
void ReportQueue::handleAll(long atMostMilliseconds) noexcept
{
    using std::chrono::steady_clock;
    const auto begin = steady_clock::now();
    const auto isTime = [&] {
        return atMostMilliseconds == unlimited ||
               steady_clock::now() - begin < std::chrono::milliseconds(atMostMilliseconds);
    };
    bool isDropLogged = false;
    bool isFirst = true;
    std::unique_lock<std::mutex> lock(m_mutex);
    while ((isFirst || (m_turns == 0 && isTime())) &&
           (!m_reports.empty() || (m_dropped != 0 && !isDropLogged))) {
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
            const bool areNested = m_nested == mostNested;
            lock.unlock();
            SD_LOG(Error) << "SDCommunicationHub - " << dropped
                          << " reports of interfaces are dropped: " << (areNested ? mostNested : mostWaiting)
                          << (areNested ? " others were made from within lines of the log."
                                        : " others were waiting.");
        }
        lock.lock();
    }
    if (isDropLogged)
        m_dropped = 0;
    unsafe_end();
}

void ReportQueue::unsafe_end() noexcept
{
    m_isAtWork = false;
    m_nested = 0;
    m_ended.notify_all();
}

}  // namespace Nubo::ServiceDiscovery::Multicast
