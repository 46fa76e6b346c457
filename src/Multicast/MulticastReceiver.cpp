#include "Multicast/MulticastReceiver.h"

#include "DataLayer/AddressText.h"
#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "Multicast/CloseOnExec.h"
#include "Multicast/ClosedInChildren.h"
#include "Multicast/InterfaceAdmission.h"

#include <Common/CurrentException.h>
#include <Common/StandardStreamGuard.h>
#include <KELUtilLib/DebugUtils.h>

#include <Poco/Exception.h>
#include <Poco/NObserver.h>
#include <Poco/Net/DatagramSocket.h>
#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/SocketNotification.h>
#include <Poco/Net/SocketReactor.h>
#include <Poco/Thread.h>
#include <Poco/Timespan.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <new>
#include <optional>
#include <thread>
#include <vector>

#include <linux/filter.h>
#include <poll.h>
#include <sys/socket.h>

namespace Nubo::ServiceDiscovery::Multicast {

using Poco::Net::DatagramSocket;
using Poco::Net::ErrorNotification;
using Poco::Net::IPAddress;
using Poco::Net::MulticastSocket;
using Poco::Net::NetworkInterface;
using Poco::Net::ReadableNotification;
using Poco::Net::ShutdownNotification;
using Poco::Net::SocketAddress;
using Poco::Net::SocketReactor;

namespace {

constexpr long pollTimeout = 1000000;  // of the reactor, in microseconds
constexpr long joinTime = 2000;        // time that stop() waits for the reactor's thread, in milliseconds
constexpr int mostAtOnce = 64;         // datagrams read before the reactor checks other sockets and the stop
constexpr int receiveBuffer = 4 * 1024 * 1024;  // bytes; a tick of 1,000 services is a burst of 125 datagrams

/// Drops the next datagram.
void discard(DatagramSocket& socket)
{
    char byte = 0;
    SocketAddress sender;
    socket.receiveFrom(&byte, 1, sender);
}

/// Removes an empty datagram from the socket, but not one with content that has arrived meanwhile.
void discardEmptyDatagram(DatagramSocket& socket)
{
    char byte = 0;
    SocketAddress sender;
    if (socket.receiveFrom(&byte, 1, sender, MSG_PEEK | MSG_TRUNC) == 0)
        discard(socket);
}

/// Lets the kernel drop datagrams from all other interfaces before they take buffer space: other sockets of
/// the unit may have joined the group there. Each index is followed by its own return, because jumps reach
/// only 255 instructions.
void passOnly(const MulticastSocket& socket, const std::vector<unsigned>& indices)
{
    constexpr auto interfaceIndex = static_cast<std::uint32_t>(SKF_AD_OFF + SKF_AD_IFINDEX);
    constexpr std::uint32_t whole = 0xffffffff;
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, interfaceIndex)};
    for (const unsigned index : indices) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, index, 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, whole));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, 0));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    socket.impl()->setRawOption(SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof(filter));
}

/// Retries for 0.2 s while the port is in use: a child that another thread has just forked holds the port
/// until it has closed its copy of the former socket.
void bindPatiently(MulticastSocket& socket, const SocketAddress& address)
{
    constexpr int attempts = 20;
    constexpr std::chrono::milliseconds wait{10};
    for (int attempt = 1; true; ++attempt) {
        try {
            socket.bind(address, false);
            return;
        }
        catch (const Poco::Exception& exception) {
            if (exception.code() != EADDRINUSE || attempt == attempts)
                throw;
        }
        std::this_thread::sleep_for(wait);
    }
}

/// Sets the mark for its lifetime.
class Taking
{
public:
    explicit Taking(std::atomic<bool>& mark) : m_mark(mark) { m_mark = true; }
    ~Taking() { m_mark = false; }

    Taking(const Taking&) = delete;
    Taking& operator=(const Taking&) = delete;

private:
    std::atomic<bool>& m_mark;
};

Poco::Buffer<char> allocateFrame(DatagramSocket& socket, int size)
{
    try {
        return Poco::Buffer<char>(static_cast<std::size_t>(size));
    }
    catch (const std::bad_alloc&) {
        discard(socket);  // otherwise the reactor would report it again at once
        throw Poco::OutOfMemoryException("Failed to allocate SocketFrame buffer");
    }
}

}  // namespace

/// Per-run state. None of it is reusable: a stopped reactor does not run again, a bound socket cannot be
/// bound again, and a joined thread cannot be joined with a time limit again.
struct MulticastReceiver::Service
{
    Service() { guard.reset(); }

    /// Prevents the descriptors of the members below from becoming standard streams.
    std::optional<Common::StandardStreamGuard> guard{std::in_place};
    MulticastSocket m_socket = openSocket();
    ClosedInChildren inChildren{m_socket.impl()->sockfd()};
    SocketReactor m_socketReactor{Poco::Timespan(0, pollTimeout)};
    Poco::Thread m_socketReactorThread;
    bool isStarted = false;  ///< the thread may be running
    bool isSpent = false;    ///< the next run needs a new Service
    std::atomic<bool> isStopping{false};
};

struct MulticastReceiver::Observers
{
    explicit Observers(MulticastReceiver& receiver)
        : readable(receiver,
                   &MulticastReceiver::guarded<ReadableNotification, &MulticastReceiver::onSocketReadable>)
        , error(receiver, &MulticastReceiver::guarded<ErrorNotification, &MulticastReceiver::onSocketError>)
        , shutdown(receiver,
                   &MulticastReceiver::guarded<ShutdownNotification, &MulticastReceiver::onReactorShutdown>)
    {}

    Poco::NObserver<MulticastReceiver, ReadableNotification> readable;
    Poco::NObserver<MulticastReceiver, ErrorNotification> error;
    Poco::NObserver<MulticastReceiver, ShutdownNotification> shutdown;
};

MulticastReceiver::MulticastData::MulticastData(const char* bytes, std::size_t size,
                                                const SocketAddress& sender)
    : buffer(bytes, size)
    , origin(sender)
{}

MulticastReceiver::MulticastData::MulticastData(Poco::Buffer<MulticastDataType>&& bytes,
                                                const SocketAddress& sender)
    : buffer(std::move(bytes))
    , origin(sender)
{}

MulticastReceiver::MulticastReceiver(const OutgoingAddresses& parent, const std::string& groupHost,
                                     std::uint16_t port)
    : m_parent(parent)
    , m_discoveryAddress(groupHost, port)
    , m_service(std::make_unique<Service>())
{}

MulticastReceiver::~MulticastReceiver()
{
    if (m_service->isStarted && !m_service->isStopping)
        stop();
    while (!endThread(joinTime)) {
    }
}

template <class Notification, void (MulticastReceiver::*handler)(const Poco::AutoPtr<Notification>&)>
void MulticastReceiver::guarded(const Poco::AutoPtr<Notification>& notification)
{
    const EngineFrame frame(this);
    if (m_service->isStopping)
        return;
    try {
        (this->*handler)(notification);
    }
    catch (...) {
        SD_LOG(Error) << "MulticastReceiver - caught exception: " << Common::currentException;
    }
}

bool MulticastReceiver::start()
{
    if (m_service->isStarted && !m_service->isStopping)
        return true;
    if (!endThread(0)) {
        SD_LOG(Error) << "MulticastReceiver - a subscriber still holds up the thread.";
        return false;
    }
    try {
        if (m_service->isSpent)
            renewService();
        bind();
        m_service->m_socketReactorThread.start(m_service->m_socketReactor);
        m_service->isStarted = true;
        return true;
    }
    catch (...) {
        SD_LOG(Error) << "MultiCast binding failed: " << Common::currentException;
    }
    release();
    return false;
}

void MulticastReceiver::bind()
{
    MulticastSocket& socket = m_service->m_socket;
    {
        const EngineLock lock(this, m_interfacesMutex);
        unsafe_filter();
    }
    bindPatiently(socket, m_discoveryAddress);
    m_service->isSpent = true;
    socket.setLoopback(false);
    socket.setBlocking(
        false);  // a datagram with a bad checksum makes the socket readable but is not delivered
    socket.setReceiveBufferSize(receiveBuffer);
    SD_LOG(Debug) << "MulticastReceiver receive buffer: " << receiveBuffer << " Bytes asked for, "
                  << socket.getReceiveBufferSize() << " got.";

    const Observers observers(*this);
    SocketReactor& reactor = m_service->m_socketReactor;
    reactor.addEventHandler(socket, observers.readable);
    reactor.addEventHandler(socket, observers.error);
    reactor.addEventHandler(socket, observers.shutdown);
    closeWatchersOnExec(socket);
}

void MulticastReceiver::stop()
{
    try {
        if (m_service->isStarted) {
            m_service->isStopping = true;  // disables the handlers, which are destroyed with the service
            m_service->m_socketReactor.stop();
            // Ends the poll, which would last up to a second. The error for a missing peer does not matter.
            ::shutdown(m_service->m_socket.impl()->sockfd(), SHUT_RDWR);
            endThread(joinTime);
        }
        leaveGroupOnInterface_byIP("", "::");
    }
    catch (...) {
        SD_LOG(Error) << "MulticastReceiver - caught exception: " << Common::currentException;
    }
    release();
}

void MulticastReceiver::stopFromWithin() noexcept
{
    m_service->isStopping = true;
}

/// Releases the port unless the thread is still running. Without memory for a new socket, only closes the old
/// one; the next start() opens a new one.
void MulticastReceiver::release()
{
    if (!m_service->isSpent || m_service->isStarted)
        return;
    try {
        renewService();
    }
    catch (...) {
        const EngineLock lock(this, m_interfacesMutex);
        m_service->inChildren.giveUp();
        m_service->m_socket.close();
        m_joinedInterfaces.clear();
    }
}

/// Waits for the thread to end, if there is one. Returns false when it is still running.
bool MulticastReceiver::endThread(long milliseconds)
{
    if (!m_service->isStarted)
        return true;
    if (!m_service->m_socketReactorThread.tryJoin(milliseconds))
        return false;
    m_service->isStarted = false;
    return true;
}

/// Replaces the socket, which releases the port. The new socket is joined on no interface.
void MulticastReceiver::renewService()
{
    auto service = std::make_unique<Service>();
    const EngineLock lock(this, m_interfacesMutex);
    m_service.swap(service);
    m_joinedInterfaces.clear();
    service->inChildren.giveUp();
    // Closed explicitly, because a reactor that ran out of memory may have leaked a reference to it.
    service->m_socket.close();
}

void MulticastReceiver::onSocketReadable(const Poco::AutoPtr<ReadableNotification>& notification)
{
    SD_LOG(Trace) << "MulticastReceiver onSocketReadable";
    // Only the first such thread of the process gets the name.
    static const bool named =
        (DebugUtils::setThreadName("SdSockReact", "MulticastReceiver::onSocketReadable"), true);
    static_cast<void>(named);

    const Taking taking(m_isTaking);
    DatagramSocket socket(notification->socket());
    int available = socket.available();
    if (available == 0) {
        SD_LOG(Debug) << "Multicast connection closed (available = 0).";
        discardEmptyDatagram(socket);
        return;
    }
    // Also reads datagrams that arrive meanwhile: a round of the reactor takes longer than a datagram.
    for (int taken = 1; true; ++taken) {
        receive(socket, available);
        available = socket.available();
        if (available == 0 || taken == mostAtOnce || m_service->isStopping)
            return;
        SD_LOG(Trace) << "MulticastReceiver onSocketReadable";
    }
}

void MulticastReceiver::receive(DatagramSocket& socket, int size)
{
    Poco::Buffer<char> frame = allocateFrame(socket, size);
    SocketAddress sender;
    const int received = socket.receiveFrom(frame.begin(), size, sender, 0);
    if (received < 1 || m_parent.isOwnOutgoingAddress(sender))
        return;
    frame.resize(static_cast<std::size_t>(received));
    MulticastDataPtr data = new MulticastData(std::move(frame), sender);
    if (!m_service->isStopping)
        MulticastMessageReceived.notify(this, data);
}

void MulticastReceiver::onSocketError(const Poco::AutoPtr<ErrorNotification>& notification)
{
    SD_LOG(Error) << "MulticastReceiver encountered Socket-Error \"" << notification->name() << "\" from \""
                  << notification->socket().address().toString() << "\"";
    notification->socket().impl()->socketError();  // clears the error, which would be reported again at once
}

void MulticastReceiver::onReactorShutdown(const Poco::AutoPtr<ShutdownNotification>& notification)
{
    SD_LOG(Error) << "MulticastReceiver encountered Reactor Shutdown \"" << notification->name()
                  << "\" from \"" << notification->socket().address().toString() << "\"";
}

bool MulticastReceiver::hasWaiting() const
{
    const std::unique_lock<std::mutex> lock(m_interfacesMutex, std::try_to_lock);
    if (!lock)
        return true;
    if (m_service->isStopping)
        return false;
    // available() would return 0 while the first waiting datagram is empty.
    pollfd watched{m_service->m_socket.impl()->sockfd(), POLLIN, 0};  // ignored if closed due to short memory
    return ::poll(&watched, 1, 0) == 1 || m_isTaking;
}

bool MulticastReceiver::isJoinedOn(const std::string& name) const
{
    const EngineLock lock(this, m_interfacesMutex);
    return std::any_of(m_joinedInterfaces.begin(), m_joinedInterfaces.end(),
                       [&](const auto& joined) { return joined.first.name() == name; });
}

Outcome MulticastReceiver::onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload)
{
    return joinGroupOnInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void MulticastReceiver::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload)
{
    leaveGroupOnInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

Outcome MulticastReceiver::joinGroupOnInterface_byIP(const std::string& name, const std::string& ip)
{
    return add(name, ip, *listingIfAny(), Attempt::Report);
}

Outcome MulticastReceiver::add(const std::string& name, const std::string& ip,
                               const InterfaceListing& listing, Attempt attempt)
{
    const QuotedInterface quoted{name, ip};
    const LogAfterwards afterwards;
    const EngineLock lock(this, m_interfacesMutex);
    AdmittedInterface admitted;
    switch (admitInterface(name, ip, listing, admitted)) {
        case Admission::NotAppropriate:
            SD_LOG(Warning) << "ServiceDiscovery skipped joining Multicast Group on Interface " << quoted
                            << ": not an appropriate IP.";
            return Outcome::Refused;
        case Admission::NotPresent:
            if (attempt == Attempt::Report)
                SD_LOG(Debug) << "ServiceDiscovery did not join IPv6 Multicast Group on Interface " << quoted
                              << ": not present.";
            return Outcome::Pending;
        case Admission::NoMulticast:
            SD_LOG(Warning) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                            << ": does not support Multicast.";
            return Outcome::Refused;
        case Admission::Good:
            break;
    }
    const auto [joined, isNew] = m_joinedInterfaces.emplace(admitted.interface, admitted.address);
    if (!isNew && !isStillThere(joined->second, admitted, listing))
        joined->second = admitted.address;  // needed to leave the group
    if (!isNew && attempt == Attempt::Again)
        return Outcome::InUse;
    if (!isNew)
        SD_LOG(Warning) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                        << ", already joined on \"" << joined->first.name() << "\"";
    else if (attempt == Attempt::Report)
        SD_LOG(Notice) << "ServiceDiscovery joining IPv6 Multicast Group for Interface \"" << name << "\".";
    bool isFiltered = !isNew;  // whether the present filter may pass the interface
    const auto forget = [&, entry = joined] {
        m_joinedInterfaces.erase(entry);
        if (isFiltered)
            unsafe_renewFilter();
    };
    try {
        unsafe_filter();
        isFiltered = true;
        unsafe_joinGroup(admitted.interface);
    }
    catch (const Poco::Exception& exception) {
        forget();
        if (attempt == Attempt::Report)
            SD_LOG(Error) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                          << ": " << exception.displayText();
        return Outcome::Pending;
    }
    catch (...) {
        forget();
        throw;
    }
    if (attempt == Attempt::Again)
        SD_LOG(Notice) << "ServiceDiscovery joining IPv6 Multicast Group for Interface \"" << name << "\".";
    return Outcome::InUse;
}

void MulticastReceiver::leaveGroupOnInterface_byIP(const std::string& name, const std::string& ip)
{
    const QuotedInterface quoted{name, ip};
    const LogAfterwards afterwards;
    const EngineLock lock(this, m_interfacesMutex);
    IPAddress address;
    try {
        address = IPAddress(std::string(withoutScope(ip)));
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to leave IPv6 Multicast Group on Interface " << quoted
                      << ": " << exception.displayText();
        return;
    }

    if (address.isWildcard()) {
        unsafe_leaveAll();
        return;
    }

    const auto found = findForRemoval(
        m_joinedInterfaces, name, address, [](const IPAddress& joinedWith) { return joinedWith; },
        [](const NetworkInterface& interface) {
            SD_LOG(Notice) << "ServiceDiscovery part of IPv6 Multicast Group for Interface \""
                           << interface.name() << "\" with currently no IPs.";
        });
    if (found == m_joinedInterfaces.end()) {
        SD_LOG(Warning) << "Failed to leave IPv6 Multicast Group on Interface " << quoted
                        << ": not joined(?)";
        return;
    }
    SD_LOG(Notice) << "ServiceDiscovery leaving IPv6 Multicast Group for Interface \""
                   << found->first.displayName() << "\" \"" << found->first.adapterName()
                   << "\" for given IP \"" << ip << "\".";
    unsafe_leaveGroup(found->first);
    m_joinedInterfaces.erase(found);
    unsafe_renewFilter();
}

void MulticastReceiver::keepOnly(const std::set<std::string>& names, const InterfaceListing& listing)
{
    const LogAfterwards afterwards;
    const EngineLock lock(this, m_interfacesMutex);
    const std::size_t before = m_joinedInterfaces.size();
    for (auto joined = m_joinedInterfaces.begin(); joined != m_joinedInterfaces.end();) {
        if (isStillOneOf(names, joined->first, listing)) {
            ++joined;
            continue;
        }
        unsafe_leaveGroup(joined->first);
        joined = m_joinedInterfaces.erase(joined);
    }
    if (m_joinedInterfaces.size() != before)
        unsafe_renewFilter();
}

void MulticastReceiver::unsafe_leaveAll()
{
    SD_LOG(Notice) << "ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";
    const InterfaceListing::Ptr listing = listingIfAny();
    while (!m_joinedInterfaces.empty()) {
        const NetworkInterface& interface = m_joinedInterfaces.begin()->first;
        if (listing->addressesOf(interface).empty())
            SD_LOG(Notice) << "ServiceDiscovery (was) part of IPv6 Multicast Group for Interface \""
                           << interface.name() << "\" with currently no IPs.";
        SD_LOG(Notice) << "ServiceDiscovery leaving IPv6 Multicast Group for Interface \""
                       << interface.displayName() << "\" \"" << interface.adapterName() << "\".";
        unsafe_leaveGroup(interface);
        m_joinedInterfaces.erase(m_joinedInterfaces.begin());
    }
    unsafe_renewFilter();
}

/// When an interface disappears, the kernel keeps its membership on the socket's list. It then regards a new
/// interface with the same index as already joined.
void MulticastReceiver::unsafe_joinGroup(const NetworkInterface& interface)
{
    try {
        m_service->m_socket.joinGroup(m_discoveryAddress.host(), interface);
    }
    catch (const Poco::Exception& exception) {
        if (exception.code() != EADDRINUSE)
            throw;
        unsafe_leaveGroup(interface);
        m_service->m_socket.joinGroup(m_discoveryAddress.host(), interface);
    }
}

void MulticastReceiver::unsafe_leaveGroup(const NetworkInterface& interface)
{
    try {
        m_service->m_socket.leaveGroup(m_discoveryAddress.host(), interface);
    }
    catch (...) {
        // The interface may have been removed, along with the membership.
        SD_LOG(Debug) << "MulticastReceiver - leaving the group on \"" << interface.name()
                      << "\": " << Common::currentException;
    }
}

/// Lets the kernel pass only datagrams from the joined interfaces. When the kernel rejects the filter, throws
/// and leaves the former one in force.
void MulticastReceiver::unsafe_filter()
{
    std::vector<unsigned> indices;
    for (const auto& joined : m_joinedInterfaces)
        indices.push_back(joined.first.index());
    passOnly(m_service->m_socket, indices);
}

/// The same after leaving an interface. Does not throw: if it fails, datagrams still arrive from an interface
/// on which another socket has joined the group.
void MulticastReceiver::unsafe_renewFilter()
{
    constexpr int attempts = 3;
    for (int attempt = 1; attempt <= attempts; ++attempt) {
        try {
            unsafe_filter();
            return;
        }
        catch (...) {
            if (attempt == attempts)
                SD_LOG(Error) << "MulticastReceiver - failed to renew the filter: "
                              << Common::currentException;
        }
    }
}

}  // namespace Nubo::ServiceDiscovery::Multicast
