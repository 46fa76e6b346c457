#include "Multicast/MulticastReceiver.h"

#include "DataLayer/Log.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "Multicast/CloseOnExec.h"
#include "Multicast/InterfaceAdmission.h"

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
#include <new>

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
constexpr long joinTime = 2000;        // that stop() waits for the reactor's thread, in ms
constexpr int mostAtOnce = 64;         // datagrams, before other sockets and the stop have their turn
constexpr int receiveBuffer = 4 * 1024 * 1024;  // a tick of 1,000 services is 125 datagrams at once

/// Takes an empty datagram off the socket; one with content that has come meanwhile stays.
void discardEmptyDatagram(DatagramSocket& socket)
{
    char byte = 0;
    SocketAddress sender;
    if (socket.receiveFrom(&byte, 1, sender, MSG_PEEK | MSG_TRUNC) == 0)
        socket.receiveFrom(&byte, 1, sender);
}

Poco::Buffer<char> allocateFrame(DatagramSocket& socket, int size)
{
    try {
        return Poco::Buffer<char>(static_cast<std::size_t>(size));
    }
    catch (const std::bad_alloc&) {
        char byte = 0;
        SocketAddress sender;
        socket.receiveFrom(&byte, 1, sender);  // dropped, so that it does not come up again at once
        throw Poco::OutOfMemoryException("Failed to allocate SocketFrame buffer");
    }
}

}  // namespace

/// What serves one run of the receiver. Nothing of it can be used a second time: a stopped reactor does not
/// run, a bound socket cannot be bound, a joined thread cannot be waited for with a limit.
struct MulticastReceiver::Service
{
    Service() { closeOnExec(socket); }

    MulticastSocket socket{SocketAddress::IPv6};
    SocketReactor reactor{Poco::Timespan(0, pollTimeout)};
    Poco::Thread thread;
    bool isStarted = false;  ///< the thread may be running
    bool isSpent = false;    ///< a new one is needed for the next run
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

MulticastReceiver::MulticastReceiver(SDCommunicationHub& parent, const std::string& groupHost,
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
    if (m_service->isStopping)
        return;
    try {
        (this->*handler)(notification);
    }
    catch (...) {
        SD_LOG(Error) << "MulticastReceiver - caught exception: " << currentExceptionText();
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
    if (m_service->isSpent && !renewService())
        return false;

    try {
        MulticastSocket& socket = m_service->socket;
        socket.bind(m_discoveryAddress, false);
        m_service->isSpent = true;
        socket.setLoopback(false);
        socket.setBlocking(false);  // a datagram with a bad checksum is announced, but not there to be read
        socket.setReceiveBufferSize(receiveBuffer);
        SD_LOG(Debug) << "MulticastReceiver receive buffer: " << receiveBuffer << " Bytes asked for, "
                      << socket.getReceiveBufferSize() << " got.";

        const Observers observers(*this);
        SocketReactor& reactor = m_service->reactor;
        reactor.addEventHandler(socket, observers.readable);
        reactor.addEventHandler(socket, observers.error);
        reactor.addEventHandler(socket, observers.shutdown);
        m_service->thread.start(reactor);
        m_service->isStarted = true;
        return true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "MultiCast binding failed: " << exception.displayText();
        return false;
    }
}

void MulticastReceiver::stop()
{
    if (m_service->isStarted) {
        m_service->isStopping = true;  // from here on the handlers do nothing; they go with the service
        m_service->reactor.stop();
        // Ends the poll, which would last up to a second. That the socket has no peer does not matter.
        ::shutdown(m_service->socket.impl()->sockfd(), SHUT_RDWR);
        endThread(joinTime);
    }
    leaveGroupOnInterface_byIP("", "::");
    if (m_service->isSpent && !m_service->isStarted)
        renewService();
}

/// Waits for the thread to end, if there is one; false when it has not.
bool MulticastReceiver::endThread(long milliseconds)
{
    if (!m_service->isStarted)
        return true;
    if (!m_service->thread.tryJoin(milliseconds))
        return false;
    m_service->isStarted = false;
    return true;
}

/// Gives back socket and port and gets a new socket, which has joined nothing.
bool MulticastReceiver::renewService()
{
    Poco::FastMutex::ScopedLock lock(m_interfacesMutex);
    try {
        m_service = std::make_unique<Service>();
        m_joinedInterfaces.clear();
        return true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "MultiCast binding failed: " << exception.displayText();
        return false;
    }
}

void MulticastReceiver::onSocketReadable(const Poco::AutoPtr<ReadableNotification>& notification)
{
    SD_LOG(Trace) << "MulticastReceiver onSocketReadable";
    // Once per process, whatever number of receivers it has.
    static const bool named =
        (DebugUtils::setThreadName("SdSockReact", "MulticastReceiver::onSocketReadable"), true);
    static_cast<void>(named);

    DatagramSocket socket(notification->socket());
    int available = socket.available();
    if (available == 0) {
        SD_LOG(Debug) << "Multicast connection closed (available = 0).";
        discardEmptyDatagram(socket);
        return;
    }
    // What has come meanwhile is taken along: a round of the reactor would take longer than the datagram.
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
    MulticastMessageReceived.notify(this, data);
}

void MulticastReceiver::onSocketError(const Poco::AutoPtr<ErrorNotification>& notification)
{
    SD_LOG(Error) << "MulticastReceiver encountered Socket-Error \"" << notification->name() << "\" from \""
                  << notification->socket().address().toString() << "\"";
    notification->socket().impl()->socketError();  // taken off, or it would be reported again at once
}

void MulticastReceiver::onReactorShutdown(const Poco::AutoPtr<ShutdownNotification>& notification)
{
    SD_LOG(Error) << "MulticastReceiver encountered Reactor Shutdown \"" << notification->name()
                  << "\" from \"" << notification->socket().address().toString() << "\"";
}

bool MulticastReceiver::isJoinedOn(const std::string& name) const
{
    Poco::FastMutex::ScopedLock lock(m_interfacesMutex);
    return std::any_of(m_joinedInterfaces.begin(), m_joinedInterfaces.end(),
                       [&](const auto& joined) { return joined.first.name() == name; });
}

void MulticastReceiver::onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload)
{
    joinGroupOnInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void MulticastReceiver::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload)
{
    leaveGroupOnInterface_byIP(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void MulticastReceiver::joinGroupOnInterface_byIP(const std::string& name, const std::string& ip)
{
    const QuotedInterface quoted{name, ip};
    Poco::FastMutex::ScopedLock lock(m_interfacesMutex);
    AdmittedInterface admitted;
    switch (admitInterface(name, ip, admitted)) {
        case Admission::NotAppropriate:
            SD_LOG(Warning) << "ServiceDiscovery skipped joining Multicast Group on Interface " << quoted
                            << ": not an appropriate IP.";
            return;
        case Admission::NotPresent:
            SD_LOG(Debug) << "ServiceDiscovery did not join IPv6 Multicast Group on Interface " << quoted
                          << ": not present.";
            return;
        case Admission::NoMulticast:
            SD_LOG(Warning) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                            << ": does not support Multicast.";
            return;
        case Admission::Good:
            break;
    }
    const auto present = m_joinedInterfaces.find(admitted.interface);
    if (present != m_joinedInterfaces.end()) {
        SD_LOG(Warning) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                        << ", already joined on \"" << present->first.name() << "\"";
        return;
    }

    SD_LOG(Notice) << "ServiceDiscovery joining IPv6 Multicast Group for Interface \"" << name << "\".";
    try {
        m_service->socket.joinGroup(m_discoveryAddress.host(), admitted.interface);
        m_joinedInterfaces.emplace(admitted.interface, admitted.address);
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to join IPv6 Multicast Group on Interface " << quoted
                      << ": " << exception.displayText();
    }
}

void MulticastReceiver::leaveGroupOnInterface_byIP(const std::string& name, const std::string& ip)
{
    const QuotedInterface quoted{name, ip};
    Poco::FastMutex::ScopedLock lock(m_interfacesMutex);
    IPAddress address;
    try {
        address = IPAddress(withoutScope(ip));
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to leave IPv6 Multicast Group on Interface " << quoted
                      << ": " << exception.displayText();
        return;
    }

    if (address.isWildcard()) {
        SD_LOG(Notice) << "ServiceDiscovery leaving IPv6 Multicast Group for all joined Interfaces.";
        for (const auto& [interface, joinedWith] : m_joinedInterfaces) {
            if (currentAddresses(interface).empty())
                SD_LOG(Notice) << "ServiceDiscovery (was) part of IPv6 Multicast Group for Interface \""
                               << interface.name() << "\" with currently no IPs.";
            SD_LOG(Notice) << "ServiceDiscovery leaving IPv6 Multicast Group for Interface \""
                           << interface.displayName() << "\" \"" << interface.adapterName() << "\".";
            unsafe_leaveGroup(interface);
        }
        m_joinedInterfaces.clear();
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
}

void MulticastReceiver::unsafe_leaveGroup(const NetworkInterface& interface)
{
    try {
        m_service->socket.leaveGroup(m_discoveryAddress.host(), interface);
    }
    catch (const Poco::Exception& exception) {
        // The interface may be gone, and the membership with it.
        SD_LOG(Debug) << "MulticastReceiver - leaving the group on \"" << interface.name()
                      << "\": " << exception.displayText();
    }
}

}  // namespace Nubo::ServiceDiscovery::Multicast
