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
    /// Limit of the interfaces in use, in case a platform reports ever more without withdrawing any.
    static constexpr std::size_t mostInterfaces = 1024;

    /// Receiver and sender must outlive this object.
    ReportedInterfaces(MulticastReceiver& receiver, MulticastSender& sender);
    /// Ends the thread.
    ~ReportedInterfaces();

    ReportedInterfaces(const ReportedInterfaces&) = delete;
    ReportedInterfaces& operator=(const ReportedInterfaces&) = delete;

    /// Handle the platform's reports. Log an error if either text is null. Never throw.
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
    };

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
};

}  // namespace Nubo::ServiceDiscovery::Multicast
