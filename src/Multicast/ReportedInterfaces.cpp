#include "Multicast/ReportedInterfaces.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"

#include <Common/CurrentException.h>
#include <KELUtilLib/DebugUtils.h>

#include <algorithm>
#include <chrono>
#include <iterator>
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
constexpr Poco::Clock::ClockDiff waitShare = 8;  // waits 1/8 of the time that an interface has been pending
/// A listing older than this is replaced, and so is one that lacks a reported interface. Until then it is
/// reused, because platforms often report many interfaces in succession.
constexpr Poco::Clock::ClockDiff listingAge = 100'000;

Outcome combined(Outcome one, Outcome other)
{
    if (one == Outcome::Pending || other == Outcome::Pending)
        return Outcome::Pending;
    return one == Outcome::InUse ? one : other;
}

/// Repeats an action a few times if it fails, for example when memory is short: the platform does not repeat
/// its report.
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

/// Whether the listing contains a usable interface of that name, and the interface still has the listed
/// index.
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
    , m_reports(
          this, [this](const ReportQueue::Report& report) { handle(report); }, [this] { leaveRest(); })
{}

ReportedInterfaces::~ReportedInterfaces()
{
    endRetrying();
}

void ReportedInterfaces::add(const char* name, const char* ip) noexcept
{
    if (!name || !ip) {
        SD_LOG(Error) << "SDCommunicationHub - an interface without a name or an address was reported.";
        return;
    }
    report(false, name, ip);
}

void ReportedInterfaces::remove(const char* name, const char* ip) noexcept
{
    if (!name || !ip) {
        SD_LOG(Error) << "SDCommunicationHub - an interface without a name or an address was taken back.";
        return;
    }
    report(true, name, ip);
}

void ReportedInterfaces::report(bool isTakenBack, const char* name, const char* ip) noexcept
{
    persist([&] { m_reports.report({isTakenBack, name, ip}); });
}

void ReportedInterfaces::handle(const ReportQueue::Report& report) noexcept
{
    persist([&] { report.isTakenBack ? giveBack(report.name, report.ip) : take(report.name, report.ip); });
}

void ReportedInterfaces::take(const std::string& name, const std::string& ip)
{
    use(name, ip);
    startRetrying(hasPending());
}

void ReportedInterfaces::use(const std::string& name, const std::string& ip)
{
    const std::optional<IPAddress> address = parseAddress(ip);
    if (!address) {
        Interface unusable{name, ip};
        serve(unusable, Attempt::Report);  // logs that the address is not usable
        return;
    }
    auto interface = find(name, *address);
    if (interface == m_interfaces.end()) {
        if (m_interfaces.size() == mostInterfaces)
            persist([&] { look({name, ip, *address}, Attempt::Report); });
        if (m_interfaces.size() == mostInterfaces && !displaceLongestPending()) {
            SD_LOG(Error) << "SDCommunicationHub - Interface " << QuotedInterface{name, ip}
                          << " is not used: " << mostInterfaces << " others stand reported already.";
            return;
        }
        interface = m_interfaces.insert(m_interfaces.end(), {name, ip, *address});
    }
    if (serve(*interface, Attempt::Report) == Outcome::Refused)
        m_interfaces.erase(interface);
}

/// Makes room for an interface that may be usable. Returns false when no interface is pending.
bool ReportedInterfaces::displaceLongestPending()
{
    const auto longest = std::min_element(
        m_interfaces.begin(), m_interfaces.end(), [](const Interface& one, const Interface& other) {
            return one.isPending && (!other.isPending || one.pendingSince < other.pendingSince);
        });
    if (longest == m_interfaces.end() || !longest->isPending)
        return false;
    SD_LOG(Error) << "SDCommunicationHub - Interface " << QuotedInterface{longest->name, longest->ip}
                  << " is not waited for any longer: " << mostInterfaces << " others stand reported.";
    m_sender.stopAwaiting(longest->name, longest->address);
    m_interfaces.erase(longest);
    letGo();
    return true;
}

void ReportedInterfaces::giveBack(const std::string& name, const std::string& ip)
{
    const std::optional<IPAddress> address = parseAddress(ip);
    const auto exact = address ? find(name, *address) : m_interfaces.end();
    const bool isLetGo = exact != m_interfaces.end() && isGone(*exact);
    const std::vector<Interface> forgotten = forget(name, ip);
    if (!isLetGo) {
        OEMInterface::RemoveServiceDiscoveryInterfacePayload payload{{name.c_str(), ip.c_str()}};
        persist([&] { m_receiver.onInterfaceRemoved(payload); });
        persist([&] { m_sender.onInterfaceRemoved(payload); });
    }
    for (const Interface& interface : forgotten)
        m_sender.stopAwaiting(interface.name, interface.address);

    if (m_listing && m_listing->isOlderThan(listingAge))
        m_listing.reset();
    // The interface may also be reported with another address.
    for (Interface& interface : m_interfaces) {
        if (interface.name == name)
            serve(interface, Attempt::Again);
    }
    startRetrying(hasPending());
}

/// The wildcard address refers to all interfaces. Otherwise each address of an interface refers to it, as in
/// sender and receiver. Returns those that are forgotten.
std::vector<ReportedInterfaces::Interface> ReportedInterfaces::forget(const std::string& name,
                                                                      const std::string& ip)
{
    const std::optional<IPAddress> address = parseAddress(ip);
    if (!address)
        return {};
    if (address->isWildcard())
        return std::exchange(m_interfaces, {});
    const auto exact = find(name, *address);
    if (exact != m_interfaces.end()) {
        std::vector<Interface> forgotten{std::move(*exact)};
        m_interfaces.erase(exact);
        return forgotten;
    }
    const InterfaceListing::Ptr listing = listingIfAny();
    const auto* const interface = listing->find(name);
    if (!interface || !containsIP(interface->addressList(), *address, name))
        return {};
    const auto others =
        std::stable_partition(m_interfaces.begin(), m_interfaces.end(),
                              [&](const Interface& reported) { return reported.name != name; });
    std::vector<Interface> forgotten(std::make_move_iterator(others),
                                     std::make_move_iterator(m_interfaces.end()));
    m_interfaces.erase(others, m_interfaces.end());
    return forgotten;
}

std::vector<ReportedInterfaces::Interface>::iterator ReportedInterfaces::find(const std::string& name,
                                                                              const IPAddress& address)
{
    return std::find_if(m_interfaces.begin(), m_interfaces.end(), [&](const Interface& interface) {
        return interface.name == name && isSameAddress(interface.address, address);
    });
}

/// Whether it existed and no longer does, or another interface has its name or index.
bool ReportedInterfaces::isGone(const Interface& interface) const
{
    return interface.index != 0 && m_listing && !m_listing->has(interface.name, interface.index);
}

/// If the interface is in use with another address, asks the system for that one, which is cheaper than a
/// listing: an interface can have hundreds of addresses.
bool ReportedInterfaces::isOutdatedFor(const Interface& interface) const
{
    if (m_listing->isOlderThan(listingAge) || !shows(*m_listing, interface.name, interface.ip))
        return true;
    const std::optional<IPAddress> used = m_sender.addressOn(interface.name);
    return used && !isSameAddress(*used, interface.address) && !canBeBound(*used);
}

/// Takes a listing if there is none. A report may concern an interface that is newer than the last listing. A
/// round of further attempts uses one listing, however long it takes.
void ReportedInterfaces::look(const Interface& interface, Attempt attempt)
{
    if (m_listing && (attempt == Attempt::Again || !isOutdatedFor(interface)))
        return;
    m_listing = InterfaceListing::take();
    letGo();
}

/// Makes receiver and sender release the interfaces that are gone or no longer reported. Those still reported
/// become pending.
void ReportedInterfaces::letGo()
{
    std::set<std::string> names;
    for (Interface& interface : m_interfaces) {
        names.insert(interface.name);
        if (isGone(interface))
            setPending(interface, true);
    }
    if (!m_listing)
        return;
    m_receiver.keepOnly(names, *m_listing);
    m_sender.keepOnly(names, *m_listing);
}

/// Never throws; a failed interface is pending.
Outcome ReportedInterfaces::serve(Interface& interface, Attempt attempt)
{
    Outcome outcome = Outcome::Pending;
    try {
        look(interface, attempt);
        if (const auto* const present = m_listing->find(interface.name))
            interface.index = present->index();
        const Outcome received = m_receiver.add(interface.name, interface.ip, *m_listing, attempt);
        const Outcome sent = m_sender.add(interface.name, interface.ip, *m_listing, attempt);
        outcome = combined(received, sent);
    }
    catch (...) {
        if (attempt == Attempt::Report)
            SD_LOG(Error) << "SDCommunicationHub - failed to use Interface "
                          << QuotedInterface{interface.name, interface.ip} << ": "
                          << Common::currentException;
    }
    setPending(interface, outcome == Outcome::Pending);
    return outcome;
}

void ReportedInterfaces::setPending(Interface& interface, bool isPending)
{
    if (isPending && !interface.isPending)
        interface.pendingSince = SDClock::now();
    interface.isPending = isPending;
}

void ReportedInterfaces::start()
{
    m_reports.work([this] {
        m_isRunning = true;
        m_listing.reset();
        for (Interface& interface : m_interfaces)
            serve(interface, Attempt::Again);
        startRetrying(hasPending());
    });
}

/// Leaves the rest to the retry thread, or to the next start or report if that thread cannot run.
void ReportedInterfaces::leaveRest() noexcept
{
    persist([this] { startRetrying(true); });
    m_disturbed.notify_all();
}

void ReportedInterfaces::stop() noexcept
{
    endRetrying();
    m_reports.work([this] { m_receiver.stop(); });
}

void ReportedInterfaces::stopFromWithin() noexcept
{
    m_isRunning = false;  // a wait ends with its timeout
}

bool ReportedInterfaces::hasPending() const
{
    return std::any_of(m_interfaces.begin(), m_interfaces.end(),
                       [](const Interface& interface) { return interface.isPending; });
}

/// Returns the time until the next attempt, in microseconds. It grows with the time that an interface has
/// been pending.
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

void ReportedInterfaces::startRetrying(bool isNeeded)
{
    if (!isNeeded || !m_isRunning || m_isRetrying)
        return;
    if (m_thread.joinable())
        m_thread.join();  // does not block: m_isRetrying is false, so the thread is about to end
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
    Poco::Clock lastRound = SDClock::now();
    for (Task task = awaitTask(lastRound); task != Task::None; task = awaitTask(lastRound)) {
        m_reports.work([&] {
            if (task == Task::Reports)
                return;  // any work handles them at its end
            m_listing.reset();
            for (Interface& interface : m_interfaces) {
                if (m_isRunning && interface.isPending)
                    serve(interface, Attempt::Again);
            }
            lastRound = SDClock::now();
        });
    }
}

/// Waits for the next task of the retry thread. Reports that were left to it do not make a round start
/// earlier.
ReportedInterfaces::Task ReportedInterfaces::awaitTask(const Poco::Clock& lastRound)
{
    std::unique_lock<std::mutex> idle = m_reports.idle();
    m_isRetrying = m_isRunning && (m_reports.unsafe_areWaiting() || hasPending());
    if (!m_isRetrying)
        return Task::None;
    const Poco::Clock::ClockDiff passed = SDClock::now() - lastRound;
    const Poco::Clock::ClockDiff left = wait() - std::max(passed, Poco::Clock::ClockDiff{0});
    const auto isDisturbed = [this] { return !m_isRunning || m_reports.unsafe_areWaiting(); };
    if (left <= 0 || !m_disturbed.wait_for(idle, std::chrono::microseconds(left), isDisturbed))
        return Task::Round;
    return m_isRunning ? Task::Reports : Task::None;
}

/// Waits for the thread only after the lock is released, because the thread may be about to begin a round.
void ReportedInterfaces::endRetrying()
{
    m_isRunning = false;  // also ends a round that has begun
    std::thread ended;
    {
        const std::unique_lock<std::mutex> idle = m_reports.idle();
        m_isRetrying = false;
        ended.swap(m_thread);
    }
    m_disturbed.notify_all();
    if (ended.joinable())
        ended.join();
}

}  // namespace Nubo::ServiceDiscovery::Multicast
