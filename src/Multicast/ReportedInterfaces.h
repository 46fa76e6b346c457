#pragma once

#include "DataLayer/EngineFrame.h"
#include "DataLayer/SDClock.h"
#include "Multicast/InterfaceAdmission.h"
#include "Multicast/InterfaceListing.h"

#include <Poco/Clock.h>
#include <Poco/Net/IPAddress.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Nubo::ServiceDiscovery::Multicast {

class MulticastReceiver;
class MulticastSender;

/// The interfaces that the platform has reported and not withdrawn. Adds them to receiver and sender, so that
/// both use the same ones: on a report, at every start, and again after a temporary failure (no descriptor
/// left, address not present yet). A dedicated thread retries at intervals that grow up to 1 s.
///
/// Two reports refer to the same interface when name and address are equal, regardless of the address's
/// spelling and scope. Thread-safe.
class ReportedInterfaces
{
public:
    /// Limit of the interfaces in use, in case a platform reports ever more without withdrawing any. A
    /// further interface displaces the one that has been unusable for the longest time.
    static constexpr std::size_t mostInterfaces = 1024;

    /// Receiver and sender must outlive this object.
    ReportedInterfaces(MulticastReceiver& receiver, MulticastSender& sender);
    /// Ends the thread.
    ~ReportedInterfaces();

    ReportedInterfaces(const ReportedInterfaces&) = delete;
    ReportedInterfaces& operator=(const ReportedInterfaces&) = delete;

    /// Handle the platform's reports. Log an error if either text is null. A report from within a log line
    /// about another report is handled after that one. Never throw.
    void add(const char* name, const char* ip) noexcept;
    void remove(const char* name, const char* ip) noexcept;

    /// Adds all reported interfaces to receiver and sender, and retries from now on.
    void start();
    /// Ends retrying and waits for the thread.
    void stop() noexcept;
    /// Ends retrying without waiting. For threads that must not wait, such as the retrying one.
    void stopFromWithin() noexcept;

private:
    struct Interface
    {
        std::string name;
        std::string ip;                  ///< as reported
        Poco::Net::IPAddress address{};  ///< without scope
        bool isPending = false;
        Poco::Clock pendingSince = SDClock::now();
        bool wasUsed = false;  ///< receiver or sender have used it and may still do so
        unsigned index = 0;    ///< system's index when it was last served; 0: none
    };

    using Handler = void (ReportedInterfaces::*)(const std::string& name, const std::string& ip);
    struct Report
    {
        Handler handler;
        std::string name;
        std::string ip;
    };

    void report(Handler handler, const char* name, const char* ip) noexcept;
    bool isAtWorkOnThisThread() const;
    void queue(Report report, bool isNested);
    template <class Action>
    void work(Action action);
    void handleReports() noexcept;
    bool displaceLongestPending();
    void take(const std::string& name, const std::string& ip);
    void giveBack(const std::string& name, const std::string& ip);
    std::vector<Interface>::iterator find(const std::string& name, const Poco::Net::IPAddress& address);
    void forget(const std::string& name, const std::string& ip);
    Outcome serve(Interface& interface, Attempt attempt);
    bool hasPending() const;
    Poco::Clock::ClockDiff wait() const;
    void startRetrying();
    void retry();

    MulticastReceiver& m_receiver;
    MulticastSender& m_sender;
    std::mutex m_mutex;  // guards the members below
    std::vector<Interface> m_interfaces;
    InterfaceListing::Ptr m_listing;
    std::atomic<bool> m_isRunning{false};
    bool m_isRetrying = false;  // the thread has not ended
    std::thread m_thread;
    std::condition_variable m_changed;

    std::mutex m_reportsMutex;  // guards the members below; never log while holding it
    std::deque<Report> m_reports;
    std::size_t m_nested = 0;   // reports from within log lines since the queue was last empty
    std::size_t m_dropped = 0;  // those beyond mostInterfaces
};

}  // namespace Nubo::ServiceDiscovery::Multicast
