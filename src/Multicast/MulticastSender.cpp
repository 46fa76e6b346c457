#include "Multicast/MulticastSender.h"

#include "DataLayer/AddressText.h"
#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "DataLayer/SDClock.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "Multicast/CloseOnExec.h"
#include "Multicast/InterfaceAdmission.h"

#include <Common/StandardStreamGuard.h>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <Poco/Net/SocketImpl.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <new>
#include <optional>
#include <string_view>

#include <poll.h>
#include <sys/socket.h>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::IPAddress;
using Poco::Net::MulticastSocket;
using Poco::Net::NetworkInterface;
using Poco::Net::SocketAddress;

namespace {

constexpr unsigned hopLimit = 255;

/// Maximum time that a datagram waits for room in an interface's queue, in microseconds.
constexpr Poco::Clock::ClockDiff sendTimeout = 20000;
constexpr Poco::Clock::ClockDiff shortestWait = 1000;  // microseconds; a send that takes longer has waited
constexpr Poco::Clock::ClockDiff microsecondsPerSecond = 1'000'000;
constexpr long nanosecondsPerMicrosecond = 1000;

/// Typical number of packets in a full datagram.
constexpr std::size_t usualPackets = 10;

/// Whether the system refuses to bind a socket to an address that it listed when the interface was admitted.
bool isNotUsableYet(const Poco::Exception& exception)
{
    return exception.code() == EADDRNOTAVAIL;
}

/// Opens what throws the exception of an error number.
struct SocketErrors : Poco::Net::SocketImpl
{
    using SocketImpl::error;
};

/// Returns when the socket has room, when a signal has come in, or after that many microseconds.
void waitForRoom(int socket, Poco::Clock::ClockDiff microseconds)
{
    pollfd watched{socket, POLLOUT, 0};
    const timespec time{0, static_cast<long>(microseconds) * nanosecondsPerMicrosecond};
    ::ppoll(&watched, 1, &time, nullptr);
}

/// Sends a datagram, waits for room for that many microseconds at most, and returns how many bytes were
/// taken. The kernel's own timeout would begin anew with each signal that the thread gets.
ssize_t sendWithin(Poco::Clock::ClockDiff patience, int socket,
                   const MulticastSender::MulticastPackage& package, const SocketAddress& to)
{
    const Poco::Clock begin;  // of the time that passes, whatever a test turns SDClock to
    while (true) {
        const ssize_t sent =
            ::sendto(socket, package.first, package.second, MSG_DONTWAIT, to.addr(), to.length());
        if (sent >= 0)
            return sent;
        const int error = errno;
        const Poco::Clock::ClockDiff left = patience - begin.elapsed();
        if (error == EAGAIN && left > 0)
            waitForRoom(socket, left);
        else if (error != EINTR)
            SocketErrors::error(error);
    }
}

}  // namespace

MulticastSender::SendData::SendData(const MulticastData& list, const std::string& placeholder)
    : packages(list)
    , ipToReplaceNext(placeholder)
    , offsets(list.size())
{}

MulticastSender::MulticastSender(const std::string& groupHost, std::uint16_t port)
    : m_group(groupHost, port)
    , m_interfaces(std::make_shared<InterfaceContainer>())
    , m_ownAddresses(std::make_shared<OwnAddresses>())
{}

MulticastSender::~MulticastSender() = default;

bool MulticastSender::init(const IPAddress& placeholder)
{
    m_ipToReplace = SOME_IP_SD_Option_IPv6::toByteStream(placeholder);
    std::atomic_store(&m_unitAddress, std::make_shared<const std::string>(m_ipToReplace));
    ++m_addressChanges;
    m_initialised = !m_ipToReplace.empty();
    return m_initialised;
}

std::shared_ptr<const MulticastSender::InterfaceContainer> MulticastSender::interfaces() const
{
    return std::atomic_load(&m_interfaces);
}

/// A replaced socket closes when the last sendMulticast() that uses it has returned.
void MulticastSender::unsafe_replaceInterfaces(InterfaceContainer interfaces)
{
    auto addresses = std::make_shared<OwnAddresses>();
    for (const auto& [interface, data] : interfaces)
        addresses->insert(data.ipAsByteStream);
    const std::shared_ptr<const InterfaceContainer> present =
        std::make_shared<InterfaceContainer>(std::move(interfaces));
    std::atomic_store(&m_ownAddresses, std::shared_ptr<const OwnAddresses>(std::move(addresses)));
    const std::shared_ptr<const InterfaceContainer> former = std::atomic_exchange(&m_interfaces, present);
    ++m_addressChanges;
    for (const auto& [interface, data] : *former) {
        const auto kept = present->find(interface);
        if (kept == present->end() || kept->second.socketPtr != data.socketPtr)
            m_localAddresses.close(data.localAddress);
    }
}

Outcome MulticastSender::onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload)
{
    return addInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void MulticastSender::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload)
{
    removeInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

Outcome MulticastSender::addInterface_byIP(const std::string& name, const std::string& ip)
{
    return add(name, ip, *listingIfAny(), Attempt::Report);
}

Outcome MulticastSender::add(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                             Attempt attempt)
{
    const QuotedInterface quoted{name, ip};
    const LogAfterwards afterwards;
    const EngineLock lock(this, m_interfacesMutex);
    AdmittedInterface admitted;
    switch (admitInterface(name, ip, listing, admitted)) {
        case Admission::NotAppropriate:
            SD_LOG(Warning) << "ServiceDiscovery skipped adding Interface " << quoted
                            << " for sending: not an appropriate IP.";
            return Outcome::Refused;
        case Admission::NotPresent:
            if (attempt == Attempt::Report)
                SD_LOG(Debug) << "ServiceDiscovery did not add Interface " << quoted
                              << " for sending: not present.";
            unsafe_stopAwaiting(name, IPAddress(std::string(withoutScope(ip))));
            return Outcome::Pending;
        case Admission::NoMulticast:
            SD_LOG(Warning) << "ServiceDiscovery failed to add Interface " << quoted
                            << " for sending: does not support Multicast.";
            return Outcome::Refused;
        case Admission::Good:
            break;
    }
    return unsafe_add(admitted, ip, listing, attempt);
}

Outcome MulticastSender::unsafe_add(const AdmittedInterface& admitted, const std::string& ip,
                                    const InterfaceListing& listing, Attempt attempt)
{
    const std::string& name = admitted.interface.name();
    const QuotedInterface quoted{name, ip};
    const std::shared_ptr<const InterfaceContainer> present = interfaces();
    const auto found = present->find(admitted.interface);
    // The interface may have lost the address in use without a report: the new address replaces it.
    if (found != present->end() && isStillThere(found->second.address, admitted, listing)) {
        if (attempt == Attempt::Report)
            SD_LOG(Warning) << "ServiceDiscovery failed to add Interface " << quoted
                            << " for sending: already added \"" << found->first.name();
        unsafe_stopAwaiting(name, admitted.address);
        return Outcome::InUse;
    }

    if (attempt == Attempt::Report)
        SD_LOG(Notice) << "ServiceDiscovery adding Interface " << quoted << " for sending.";
    try {
        unsafe_open(admitted);
    }
    catch (const Poco::Exception& exception) {
        const bool isAwaited = isNotUsableYet(exception);
        if (isAwaited)
            unsafe_await(name, admitted.address);
        if (attempt == Attempt::Report && isAwaited)
            SD_LOG(Debug) << "ServiceDiscovery waits until Interface " << quoted
                          << " can be used for sending.";
        else if (attempt == Attempt::Report)
            SD_LOG(Error) << "ServiceDiscovery failed to add Interface " << quoted
                          << " for sending: " << exception.displayText();
        return Outcome::Pending;
    }
    unsafe_stopAwaiting(name, admitted.address);
    if (attempt == Attempt::Again)
        SD_LOG(Notice) << "ServiceDiscovery can use Interface " << quoted << " for sending.";
    return Outcome::InUse;
}

void MulticastSender::unsafe_open(const AdmittedInterface& admitted)
{
    const Common::StandardStreamGuard guard;
    SocketPtr socket = new MulticastSocket(openSocket());
    socket->bind(SocketAddress(admitted.address, 0), false);
    socket->setInterface(admitted.interface);
    socket->setTimeToLive(hopLimit);
    socket->setLoopback(false);
    const SocketAddress localAddress = socket->address();

    InterfaceContainer changed = *interfaces();
    changed.insert_or_assign(admitted.interface,
                             InterfaceData_t{socket, SOME_IP_SD_Option_IPv6::toByteStream(admitted.address),
                                             isLinkLocal(admitted.address), admitted.address, localAddress});
    m_localAddresses.open(localAddress);
    try {
        unsafe_replaceInterfaces(std::move(changed));
    }
    catch (...) {
        m_localAddresses.close(localAddress);
        throw;
    }
}

void MulticastSender::unsafe_await(const std::string& name, const IPAddress& address)
{
    unsafe_stopAwaiting(name, address);
    m_awaited.push_back({name, address});
    m_isAwaiting = true;
}

void MulticastSender::stopAwaiting(const std::string& name, const IPAddress& address)
{
    const EngineLock lock(this, m_interfacesMutex);
    unsafe_stopAwaiting(name, address);
}

/// Returns whether the interface was awaited.
bool MulticastSender::unsafe_stopAwaiting(const std::string& name, const IPAddress& address)
{
    const auto kept =
        std::remove_if(m_awaited.begin(), m_awaited.end(), [&](const AwaitedInterface& awaited) {
            return awaited.name == name && isSameAddress(awaited.address, address);
        });
    const bool result = kept != m_awaited.end();
    m_awaited.erase(kept, m_awaited.end());
    m_isAwaiting = !m_awaited.empty();
    return result;
}

void MulticastSender::removeInterface_byIP(const std::string& name, const std::string& ip)
{
    const QuotedInterface quoted{name, ip};
    const LogAfterwards afterwards;
    const EngineLock lock(this, m_interfacesMutex);
    IPAddress address;
    try {
        address = IPAddress(std::string(withoutScope(ip)));
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to remove Interface " << quoted
                      << " for sending: " << exception.displayText();
        return;
    }

    if (address.isWildcard()) {
        unsafe_removeAll();
        return;
    }

    InterfaceContainer changed = *interfaces();
    const bool wasAwaited = unsafe_stopAwaiting(name, address);
    const auto found = findForRemoval(
        changed, name, address, [](const InterfaceData_t& data) { return data.address; },
        [](const NetworkInterface& interface) {
            SD_LOG(Notice) << "ServiceDiscovery part of Interface \"" << interface.name()
                           << "\" for sending with currently no IPs.";
        });
    if (found == changed.end()) {
        if (wasAwaited)
            return;
        SD_LOG(Warning) << "Failed to remove Interface " << quoted << " for sending: not connected(?)";
        return;
    }
    SD_LOG(Notice) << "ServiceDiscovery removing Interface \"" << name << "\" for given IP \"" << ip
                   << "\" for sending.";
    changed.erase(found);
    unsafe_replaceInterfaces(std::move(changed));
}

void MulticastSender::keepOnly(const std::set<std::string>& names, const InterfaceListing& listing)
{
    const EngineLock lock(this, m_interfacesMutex);
    InterfaceContainer changed = *interfaces();
    for (auto used = changed.begin(); used != changed.end();)
        used = isStillOneOf(names, used->first, listing) ? std::next(used) : changed.erase(used);
    if (changed.size() != interfaces()->size())
        unsafe_replaceInterfaces(std::move(changed));
    m_awaited.erase(
        std::remove_if(m_awaited.begin(), m_awaited.end(),
                       [&](const AwaitedInterface& awaited) { return names.count(awaited.name) == 0; }),
        m_awaited.end());
    m_isAwaiting = !m_awaited.empty();
}

void MulticastSender::unsafe_removeAll()
{
    SD_LOG(Notice) << "ServiceDiscovery all Interfaces for sending.";
    const std::shared_ptr<const InterfaceContainer> present = interfaces();
    const InterfaceListing::Ptr listing = listingIfAny();
    for (const auto& [interface, data] : *present) {
        if (listing->addressesOf(interface).empty())
            SD_LOG(Notice) << "ServiceDiscovery (was) part of Interface \"" << interface.name()
                           << "\" for sending with currently no IPs.";
        SD_LOG(Notice) << "ServiceDiscovery removing Interface \"" << interface.name() << "\" for sending.";
    }
    unsafe_replaceInterfaces({});
    m_awaited.clear();
    m_isAwaiting = false;
}

bool MulticastSender::sendMulticast(const MulticastData& packagesForAll,
                                    const MulticastData& packagesForInternal)
{
    if (!m_initialised) {
        SD_LOG(Error) << "MulticastSender failed to send package, external IP address was not initialised!";
        return false;
    }
    const std::shared_ptr<const InterfaceContainer> snapshot = interfaces();
    if (snapshot->empty() && m_isAwaiting) {
        SD_LOG(Debug) << "MulticastSender sends nothing until an interface can be used.";
        return false;
    }
    if (snapshot->empty()) {
        SD_LOG(Error)
            << "MulticastSender failed to send package, no service discovery interfaces configured!";
        return false;
    }

    bool result = true;
    if (snapshot->size() == 1) {
        const InterfaceData_t& interface = snapshot->begin()->second;
        if (interface.isInternal)
            result = sendServices(interface, packagesForInternal, List::Internal);
        return sendServices(interface, packagesForAll, List::All) && result;
    }
    SendData all(packagesForAll, m_ipToReplace);
    SendData internal(packagesForInternal, m_ipToReplace);
    for (const auto& [key, interface] : *snapshot) {
        if (interface.isInternal)
            result = sendAdjusted(interface, internal, List::Internal) && result;
        result = sendAdjusted(interface, all, List::All) && result;
    }
    return result;
}

bool MulticastSender::sendAdjusted(const InterfaceData_t& interface, SendData& data, List list) const
{
    data.ipReplacement = interface.ipAsByteStream;
    const bool result = sendServices(interface, data, list);
    data.ipToReplaceNext = interface.ipAsByteStream;
    return result;
}

/// Calls `send` once per datagram, starting with the first that was lost last time. Returns whether all were
/// sent.
template <class Send>
bool MulticastSender::sendEach(const InterfaceData_t& interface, List list, std::size_t count,
                               Send send) const
{
    std::size_t& firstLost = interface.pace->firstLost.at(static_cast<std::size_t>(list));
    std::size_t next = firstLost < count ? firstLost : 0;
    std::optional<std::size_t> lost;
    bool result = true;
    for (std::size_t i = 0; i < count; ++i) {
        const std::size_t at = next;
        next = at + 1 < count ? at + 1 : 0;
        if (sendPaced(interface, [&] { return send(at); }))
            continue;
        result = false;
        if (!lost && !interface.pace->isWaitedFor)
            lost = at;
    }
    if (count > 1)
        firstLost = lost.value_or(0);
    return result;
}

bool MulticastSender::WaitBudget::isLeft(const Poco::Clock& now)
{
    if (now - m_second >= microsecondsPerSecond) {
        m_second = now;
        m_spent = 0;
    }
    return m_spent < sendTimeout;
}

/// Sends a datagram. Waits for room in the queue only if the interface is not stalled and the budget allows
/// it.
template <class Send>
bool MulticastSender::sendPaced(const InterfaceData_t& interface, Send send) const
{
    if (interface.socketPtr.isNull())
        return send();
    Pace& pace = *interface.pace;
    const Poco::Clock begin = SDClock::now();
    pace.isWaitedFor = !pace.isStalled && m_waitBudget.isLeft(begin);
    const bool isSent = send();
    const Poco::Clock::ClockDiff duration = SDClock::now() - begin;
    if (duration >= shortestWait)
        m_waitBudget.spend(duration);
    if (isSent)
        pace.isStalled = false;
    else if (pace.isWaitedFor && duration >= shortestWait)
        pace.isStalled = true;
    return isSent;
}

bool MulticastSender::sendServices(const InterfaceData_t& interface, const MulticastData& packages,
                                   List list) const
{
    return sendEach(interface, list, packages.size(), [&](std::size_t i) {
        return transmit(interface.socketPtr, packages[i], interface.pace->isWaitedFor);
    });
}

bool MulticastSender::sendServices(const InterfaceData_t& interface, SendData& data, List list) const
{
    if (data.offsets.size() != data.packages.size()) {
        SD_LOG(Error) << "sendServices: package & offsets count mismatch!";
        return false;
    }
    return sendEach(interface, list, data.packages.size(), [&](std::size_t i) {
        // A package in which nothing was replaced yet may contain the address of an interface as its content,
        // so only the placeholder is searched for.
        const std::string& oldIP = data.offsets[i].empty() ? m_ipToReplace : data.ipToReplaceNext;
        const bool adjusted = adjustIPs(data.packages[i], oldIP, data.ipReplacement, data.offsets[i]);
        const bool sent = transmit(interface.socketPtr, data.packages[i], interface.pace->isWaitedFor);
        return adjusted && sent;
    });
}

bool MulticastSender::adjustIPs(MulticastPackage& package, const std::string& oldIP, const std::string& newIP,
                                AdjustmentOffsets& offsets)
{
    if (oldIP.size() != newIP.size()) {
        SD_LOG(Error) << "adjustIPs: IP sizes do not match!";
        return false;
    }
    char* const begin = package.first;
    char* const end = begin + package.second;
    if (offsets.empty()) {
        offsets.reserve(usualPackets);
        for (char* at = begin; (at = std::search(at, end, oldIP.begin(), oldIP.end())) != end;) {
            offsets.push_back(static_cast<std::uint64_t>(at - begin));
            at = std::copy(newIP.begin(), newIP.end(), at);
        }
        return true;
    }
    for (const std::uint64_t offset : offsets) {
        if (offset + newIP.size() > package.second) {
            SD_LOG(Error) << "adjustIPs: found offset that lies beyond package boundary! (offset:" << offset
                          << "), (package-size:" << package.second << "), (new IP size:" << newIP.size()
                          << ")";
            break;  // the package is sent anyway
        }
        std::copy(newIP.begin(), newIP.end(), begin + offset);
    }
    return true;
}

bool MulticastSender::transmit(const SocketPtr& socket, const MulticastPackage& package,
                               bool isWaitedFor) const
{
    if (socket.isNull()) {
        SD_LOG(Warning) << "MulticastSender failed to send package: SocketPtr was Null!";
        return false;
    }
    try {
        const ssize_t sent =
            sendWithin(isWaitedFor ? sendTimeout : 0, socket->impl()->sockfd(), package, m_group);
        if (static_cast<std::size_t>(sent) == package.second)
            return true;
        SD_LOG(Warning) << "MulticastSender failed to send complete package: " << sent << "/"
                        << package.second << " Byte(s) sent.";
    }
    catch (const Poco::Exception& exception) {
        // One failed datagram must not prevent the others from being sent.
        SD_LOG(Error) << "sendMulticast caught exception: " << exception.displayText();
    }
    return false;
}

bool MulticastSender::isOwnOutgoingAddress(const SocketAddress& origin) const
{
    return m_localAddresses.contains(origin);
}

IPAddress MulticastSender::unitAddress() const
{
    const std::shared_ptr<const std::string> unit = std::atomic_load(&m_unitAddress);
    if (!unit || unit->size() != sizeof(in6_addr))
        return IPAddress(IPAddress::IPv6);
    return IPAddress(unit->data(), sizeof(in6_addr));
}

std::optional<IPAddress> MulticastSender::addressOn(const std::string& name) const
{
    const std::shared_ptr<const InterfaceContainer> present = interfaces();
    for (const auto& [interface, data] : *present) {
        if (interface.name() == name)
            return data.address;
    }
    return std::nullopt;
}

bool MulticastSender::isOwnAddress(const IPAddress& address) const
{
    if (address.family() != IPAddress::IPv6)
        return false;
    const std::string_view bytes(static_cast<const char*>(address.addr()),
                                 static_cast<std::size_t>(address.length()));
    const std::shared_ptr<const std::string> unit = std::atomic_load(&m_unitAddress);
    const std::shared_ptr<const OwnAddresses> addresses = std::atomic_load(&m_ownAddresses);
    return (unit && bytes == *unit) || addresses->find(bytes) != addresses->end();
}

}  // namespace Nubo::ServiceDiscovery::Multicast
