#include "Multicast/ReportedInterfaces.h"

#include "DataLayer/Log.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"

#include <Common/CurrentException.h>
#include <KELUtilLib/DebugUtils.h>

#include <algorithm>
#include <chrono>
#include <optional>
#include <set>
#include <system_error>
#include <utility>

#include <net/if.h>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::IPAddress;

namespace {

// In microseconds.
constexpr Poco::Clock::ClockDiff shortestWait = 50'000;
constexpr Poco::Clock::ClockDiff longestWait = 1'000'000;
constexpr Poco::Clock::ClockDiff waitShare = 8;  // of the time for which an interface has been pending
/// Reports often come one after the other for many interfaces. What is asked of a listing that is older than
/// this, or says that something is not there, is asked of a new one.
constexpr Poco::Clock::ClockDiff listingAge = 100'000;

Outcome combined(Outcome one, Outcome other)
{
    if (one == Outcome::Pending || other == Outcome::Pending)
        return Outcome::Pending;
    return one == Outcome::InUse ? one : other;
}

/// Repeats what has failed for want of memory, a few times: the platform does not repeat its report.
template <class Action>
void persist(Action action) noexcept
{
    constexpr int attempts = 3;
    for (int attempt = 0; attempt < attempts; ++attempt) {
        try {
            action();
            return;
        }
        catch (...) {
            SD_LOG(Error) << "SDCommunicationHub - failed to handle the report of an interface: "
                          << Common::currentException;
        }
    }
}

/// Whether the listing shows an interface that can be used, and still has that index.
bool shows(const InterfaceListing& listing, const std::string& name, const std::string& ip)
{
    AdmittedInterface admitted;
    return admitInterface(name, ip, listing, admitted) == Admission::Good &&
           ::if_nametoindex(name.c_str()) == admitted.interface.index();
}

}  // namespace

ReportedInterfaces::ReportedInterfaces(MulticastReceiver& receiver, MulticastSender& sender)
    : m_receiver(receiver)
    , m_sender(sender)
{}

ReportedInterfaces::~ReportedInterfaces()
{
    stop();
}

void ReportedInterfaces::add(const char* name, const char* ip) noexcept
{
    if (!name || !ip) {
        SD_LOG(Error) << "SDCommunicationHub - an interface without a name or an address was reported.";
        return;
    }
    report(&ReportedInterfaces::take, name, ip);
}

void ReportedInterfaces::remove(const char* name, const char* ip) noexcept
{
    if (!name || !ip) {
        SD_LOG(Error) << "SDCommunicationHub - an interface without a name or an address was taken back.";
        return;
    }
    report(&ReportedInterfaces::giveBack, name, ip);
}

/// A platform may report from within a line of the log that is written here, or while the receiver leaves
/// its interfaces. Then this thread has what the report needs, and handles it later.
void ReportedInterfaces::report(Handler handler, const char* name, const char* ip) noexcept
{
    const bool isNested = isAtWorkOnThisThread();
    persist([&] { queue({handler, name, ip}, isNested); });
    if (!isNested)
        work([] {});
}

bool ReportedInterfaces::isAtWorkOnThisThread() const
{
    return EngineFrame::isOnThisThread(&m_mutex) || m_receiver.isLeavingOnThisThread();
}

void ReportedInterfaces::queue(Report report, bool isNested)
{
    const std::lock_guard<std::mutex> lock(m_reportsMutex);
    if (isNested && m_nested == mostInterfaces) {
        ++m_dropped;  // an error line here might bring the next report
        return;
    }
    m_reports.push_back(std::move(report));
    if (isNested)
        ++m_nested;
}

template <class Action>
void ReportedInterfaces::work(Action action)
{
    const EngineLock lock(this, m_mutex);
    const EngineFrame atWork(&m_mutex);
    action();
    handleReports();
}

/// Handles what is reported, also meanwhile.
void ReportedInterfaces::handleReports() noexcept
{
    const auto next = [this]() -> std::optional<Report> {
        const std::lock_guard<std::mutex> lock(m_reportsMutex);
        if (m_reports.empty())
            return std::nullopt;
        Report report = std::move(m_reports.front());
        m_reports.pop_front();
        return report;
    };
    while (const std::optional<Report> report = next())
        persist([&] { (this->*report->handler)(report->name, report->ip); });

    std::unique_lock<std::mutex> lock(m_reportsMutex);
    if (const std::size_t dropped = m_dropped) {
        lock.unlock();
        SD_LOG(Error) << "SDCommunicationHub - " << dropped
                      << " reports of interfaces are dropped: " << mostInterfaces
                      << " others were made from within lines of the log.";
        lock.lock();
    }
    m_nested = 0;
    m_dropped = 0;
}

void ReportedInterfaces::take(const std::string& name, const std::string& ip)
{
    const std::optional<IPAddress> address = parseAddress(ip);
    if (!address) {
        Interface unusable{name, ip};
        serve(unusable, Attempt::Report);  // which says so in the log
        return;
    }
    auto interface = find(name, *address);
    if (interface == m_interfaces.end()) {
        if (m_interfaces.size() == mostInterfaces && !displaceLongestPending()) {
            SD_LOG(Error) << "SDCommunicationHub - Interface " << QuotedInterface{name, ip}
                          << " is not used: " << mostInterfaces << " others stand reported already.";
            return;
        }
        interface = m_interfaces.insert(m_interfaces.end(), {name, ip, *address});
    }
    if (serve(*interface, Attempt::Report) == Outcome::Refused)
        m_interfaces.erase(interface);
    startRetrying();
}

/// Makes room for an interface that may be usable; whether there was one that is not.
bool ReportedInterfaces::displaceLongestPending()
{
    const auto longest = std::min_element(
        m_interfaces.begin(), m_interfaces.end(), [](const Interface& one, const Interface& other) {
            return one.isPending && (!other.isPending || one.pendingSince < other.pendingSince);
        });
    if (longest == m_interfaces.end() || !longest->isPending)
        return false;
    const Interface displaced = *longest;
    SD_LOG(Error) << "SDCommunicationHub - Interface " << QuotedInterface{displaced.name, displaced.ip}
                  << " is not waited for any longer: " << mostInterfaces << " others stand reported.";
    if (displaced.wasUsed)
        giveBack(displaced.name, displaced.ip);
    else
        m_interfaces.erase(longest);
    return true;
}

void ReportedInterfaces::giveBack(const std::string& name, const std::string& ip)
{
    std::set<unsigned> indices;
    for (const Interface& interface : m_interfaces) {
        if (interface.name == name && interface.index != 0)
            indices.insert(interface.index);
    }
    forget(name, ip);
    OEMInterface::RemoveServiceDiscoveryInterfacePayload payload{{name.c_str(), ip.c_str()}};
    persist([&] { m_receiver.onInterfaceRemoved(payload); });
    persist([&] { m_sender.onInterfaceRemoved(payload); });

    // The interface may stand reported with another address as well, or with the name that it has now.
    for (Interface& interface : m_interfaces) {
        if (interface.name == name || indices.count(interface.index) != 0)
            serve(interface, Attempt::Again);
    }
    startRetrying();
}

/// The wildcard address means every interface; otherwise any address of an interface means it, as it does for
/// sender and receiver.
void ReportedInterfaces::forget(const std::string& name, const std::string& ip)
{
    const std::optional<IPAddress> address = parseAddress(ip);
    if (!address)
        return;
    if (address->isWildcard()) {
        m_interfaces.clear();
        return;
    }
    const auto exact = find(name, *address);
    if (exact != m_interfaces.end()) {
        m_interfaces.erase(exact);
        return;
    }
    const InterfaceListing::Ptr listing = listingIfAny();
    const auto* const interface = listing->find(name);
    if (!interface || !SDCommunicationHub::containsIP(interface->addressList(), *address, name))
        return;
    m_interfaces.erase(std::remove_if(m_interfaces.begin(), m_interfaces.end(),
                                      [&](const Interface& reported) { return reported.name == name; }),
                       m_interfaces.end());
}

std::vector<ReportedInterfaces::Interface>::iterator ReportedInterfaces::find(const std::string& name,
                                                                              const IPAddress& address)
{
    return std::find_if(m_interfaces.begin(), m_interfaces.end(), [&](const Interface& interface) {
        return interface.name == name && isSameAddress(interface.address, address);
    });
}

/// Never throws: what has failed is pending.
Outcome ReportedInterfaces::serve(Interface& interface, Attempt attempt)
{
    Outcome outcome = Outcome::Pending;
    try {
        // A report may be about what has come since the listing; a round of further attempts makes do with
        // one.
        const bool isNews = attempt == Attempt::Report;
        if (!m_listing || m_listing->isOlderThan(listingAge) ||
            (isNews && !shows(*m_listing, interface.name, interface.ip)))
            m_listing = InterfaceListing::take();
        if (const auto* const present = m_listing->find(interface.name))
            interface.index = present->index();
        const Outcome received = m_receiver.add(interface.name, interface.ip, *m_listing, attempt);
        const Outcome sent = m_sender.add(interface.name, interface.ip, *m_listing, attempt);
        outcome = combined(received, sent);
        interface.wasUsed |= received == Outcome::InUse || sent == Outcome::InUse;
    }
    catch (...) {
        if (attempt == Attempt::Report)
            SD_LOG(Error) << "SDCommunicationHub - failed to use Interface "
                          << QuotedInterface{interface.name, interface.ip} << ": "
                          << Common::currentException;
    }
    if (outcome == Outcome::Pending && !interface.isPending)
        interface.pendingSince = SDClock::now();
    interface.isPending = outcome == Outcome::Pending;
    return outcome;
}

void ReportedInterfaces::start()
{
    work([this] {
        m_isRunning = true;
        m_listing.reset();
        for (Interface& interface : m_interfaces)
            serve(interface, Attempt::Again);
        startRetrying();
    });
}

void ReportedInterfaces::stop() noexcept
{
    {
        const EngineLock lock(this, m_mutex);
        m_isRunning = false;
    }
    m_changed.notify_all();
    if (m_thread.joinable())
        m_thread.join();
}

void ReportedInterfaces::stopFromWithin() noexcept
{
    m_isRunning = false;  // without the mutex, which this thread may hold; a wait ends by itself
}

bool ReportedInterfaces::hasPending() const
{
    return std::any_of(m_interfaces.begin(), m_interfaces.end(),
                       [](const Interface& interface) { return interface.isPending; });
}

/// Until the next attempt, in microseconds: the longer an interface has been pending, the longer.
Poco::Clock::ClockDiff ReportedInterfaces::wait() const
{
    const Poco::Clock now = SDClock::now();
    Poco::Clock::ClockDiff wait = longestWait;
    for (const Interface& interface : m_interfaces) {
        if (interface.isPending)
            wait = std::min(wait, std::max(shortestWait, (now - interface.pendingSince) / waitShare));
    }
    return wait;
}

void ReportedInterfaces::startRetrying()
{
    if (!m_isRunning || m_isRetrying || !hasPending())
        return;
    if (m_thread.joinable())
        m_thread.join();  // it has given the mutex back for the last time
    try {
        m_thread = std::thread(&ReportedInterfaces::retry, this);
        m_isRetrying = true;
    }
    catch (const std::system_error& error) {
        SD_LOG(Error) << "SDCommunicationHub - no thread to retry interfaces: " << error.what();
    }
}

void ReportedInterfaces::retry()
{
    const EngineFrame frame(this);
    DebugUtils::setThreadName("SdIfRetry", "ReportedInterfaces::retry");
    EngineLock lock(this, m_mutex);
    while (m_isRunning && hasPending()) {
        m_changed.wait_for(lock.lock, std::chrono::microseconds(wait()));
        if (!m_isRunning)
            break;
        const EngineFrame atWork(&m_mutex);
        m_listing.reset();
        for (Interface& interface : m_interfaces) {
            if (interface.isPending)
                serve(interface, Attempt::Again);
        }
        handleReports();
    }
    m_isRetrying = false;
}

}  // namespace Nubo::ServiceDiscovery::Multicast
