#pragma once

#include "DataLayer/SDClock.h"
#include "Multicast/InterfaceAdmission.h"
#include "Multicast/InterfaceListing.h"
#include "Multicast/ReportQueue.h"

#include <Poco/Clock.h>
#include <Poco/Net/IPAddress.h>

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
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

    /// The platform's reports; either text may be null. Never throw, and never wait for another thread.
    void add(const char* name, const char* ip) noexcept;
    void remove(const char* name, const char* ip) noexcept;

    /// Has receiver and sender use everything that stands reported, and retries from now on.
    void start();
    /// Ends the retrying and stops the receiver. What is reported meanwhile is handled after that.
    void stop() noexcept;
    /// Ends the retrying, for a thread that must not wait, be it the one that retries.
    void stopFromWithin() noexcept;

private:
    struct Interface
    {
        std::string name;
        std::string ip;                  ///< as it was reported
        Poco::Net::IPAddress address{};  ///< without scope
        bool isPending = false;
        Poco::Clock pendingSince = SDClock::now();
        unsigned index = 0;  ///< that it had when it was last there
    };

    /// Of the thread that retries.
    enum class Task : std::uint8_t
    {
        None,
        Reports,
        Round
    };

    void report(bool isTakenBack, const char* name, const char* ip) noexcept;
    void handle(const ReportQueue::Report& report) noexcept;
    bool displaceLongestPending();
    void take(const std::string& name, const std::string& ip);
    void use(const std::string& name, const std::string& ip);
    void giveBack(const std::string& name, const std::string& ip);
    std::vector<Interface>::iterator find(const std::string& name, const Poco::Net::IPAddress& address);
    void forget(const std::string& name, const std::string& ip);
    bool isGone(const Interface& interface) const;
    void look(const Interface& interface, Attempt attempt);
    void letGo();
    Outcome serve(Interface& interface, Attempt attempt);
    static void setPending(Interface& interface, bool isPending);
    bool hasPending() const;
    Poco::Clock::ClockDiff wait() const;
    void leaveRest() noexcept;
    void startRetrying(bool isNeeded);
    void retry();
    Task awaitTask(const Poco::Clock& lastRound);
    void endRetrying();

    MulticastReceiver& m_receiver;
    MulticastSender& m_sender;
    ReportQueue m_reports;
    // The following belongs to the one at work; while nobody is, to the holder of m_reports.idle().
    std::vector<Interface> m_interfaces;
    InterfaceListing::Ptr m_listing;
    bool m_isRetrying = false;  // the thread has not ended
    std::thread m_thread;

    std::atomic<bool> m_isRunning{false};
    std::condition_variable m_disturbed;  // the thread's wait for a round
};

}  // namespace Nubo::ServiceDiscovery::Multicast
