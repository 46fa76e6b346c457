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

    /// Handle the platform's reports. Log an error if either text is null. Never throw, and never wait for
    /// another thread.
    void add(const char* name, const char* ip) noexcept;
    void remove(const char* name, const char* ip) noexcept;

    /// Adds all reported interfaces to receiver and sender, and retries from now on.
    void start();
    /// Ends retrying and stops the receiver. Reports that arrive meanwhile are handled after that.
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
        unsigned index = 0;  ///< system's index when it was last listed; 0: none
    };

    /// What the retry thread does next.
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
    std::vector<Interface> forget(const std::string& name, const std::string& ip);
    bool isGone(const Interface& interface) const;
    bool isOutdatedFor(const Interface& interface) const;
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
    // The members below belong to the thread at work; if none is, to the holder of the lock of idle().
    std::vector<Interface> m_interfaces;
    InterfaceListing::Ptr m_listing;
    bool m_isRetrying = false;  // the thread has not ended
    std::thread m_thread;

    std::atomic<bool> m_isRunning{false};
    std::condition_variable m_disturbed;  // interrupts the retry thread's wait for a round
};

}  // namespace Nubo::ServiceDiscovery::Multicast
