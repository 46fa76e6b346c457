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

/// The interfaces that the platform has reported and not taken back. It serves receiver and sender, which
/// therefore always use the same ones: when a report comes, at every start, and after a failure that may pass
/// (no descriptor left, an address that is not there yet), on a thread of its own with growing intervals of
/// up to a second.
///
/// Two reports are about the same interface when they have the same name and the same address, however that
/// is spelled and whether it has a scope or not. Safe to use from any thread.
class ReportedInterfaces
{
public:
    /// No more are used, however many a platform reports and does not take back. A further one displaces the
    /// one that could not be used for the longest time.
    static constexpr std::size_t mostInterfaces = 1024;

    ReportedInterfaces(MulticastReceiver& receiver, MulticastSender& sender);
    /// Ends the thread.
    ~ReportedInterfaces();

    ReportedInterfaces(const ReportedInterfaces&) = delete;
    ReportedInterfaces& operator=(const ReportedInterfaces&) = delete;

    /// The platform's reports; either text may be null. Never throw. One that is made from within a line of
    /// the log about another one is handled after that.
    void add(const char* name, const char* ip) noexcept;
    void remove(const char* name, const char* ip) noexcept;

    /// Has receiver and sender use everything that stands reported, and retries from now on.
    void start();
    /// Ends the retrying.
    void stop() noexcept;
    /// The same from a thread that must not wait, be it the one that retries.
    void stopFromWithin() noexcept;

private:
    struct Interface
    {
        std::string name;
        std::string ip;                  ///< as it was reported
        Poco::Net::IPAddress address{};  ///< without scope
        bool isPending = false;
        Poco::Clock pendingSince = SDClock::now();
        bool wasUsed = false;  ///< by the receiver or the sender at least, which may have it still
        unsigned index = 0;    ///< that it was served with last
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
    std::mutex m_mutex;  // guards what follows
    std::vector<Interface> m_interfaces;
    InterfaceListing::Ptr m_listing;
    std::atomic<bool> m_isRunning{false};
    bool m_isRetrying = false;  // the thread has not ended
    std::thread m_thread;
    std::condition_variable m_changed;

    std::mutex m_reportsMutex;  // guards what follows; nothing is logged under it
    std::deque<Report> m_reports;
    std::size_t m_nested = 0;   // of the present work: reports from within
    std::size_t m_dropped = 0;  // beyond mostInterfaces of these
};

}  // namespace Nubo::ServiceDiscovery::Multicast
