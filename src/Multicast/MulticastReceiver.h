#pragma once

#include "Multicast/InterfaceAdmission.h"

#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <Poco/AutoPtr.h>
#include <Poco/BasicEvent.h>
#include <Poco/Buffer.h>
#include <Poco/Mutex.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>
#include <Poco/SharedPtr.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace Poco::Net {
class DatagramSocket;
class ErrorNotification;
class ReadableNotification;
class ShutdownNotification;
}  // namespace Poco::Net

namespace Nubo::ServiceDiscovery {

class SDCommunicationHub;

namespace Multicast {

/// Receives datagrams of the discovery group on every interface that the platform reports, on one socket
/// that a thread of its own serves, and raises an event for each that another unit sent.
class MulticastReceiver
{
public:
    /// One received datagram.
    struct MulticastData
    {
        using MulticastDataType = char;

        /// Copies `size` bytes.
        MulticastData(const char* bytes, std::size_t size, const Poco::Net::SocketAddress& sender);
        /// Takes the bytes over.
        MulticastData(Poco::Buffer<MulticastDataType>&& bytes, const Poco::Net::SocketAddress& sender);

        Poco::Buffer<MulticastDataType> buffer;  ///< exactly the bytes received
        Poco::Net::SocketAddress origin;         ///< the sender
    };
    using MulticastDataPtr = Poco::SharedPtr<MulticastData>;

    /// Raised for every datagram of another unit, on the receiver's thread. A subscriber hands its work on
    /// and returns.
    Poco::BasicEvent<MulticastDataPtr, Poco::FastMutex> MulticastMessageReceived;

    /// Nothing is bound yet, but interfaces may be joined. Throws Poco::Net::NetException when the system
    /// has no IPv6.
    MulticastReceiver(SDCommunicationHub& parent, const std::string& groupHost, std::uint16_t port);
    /// Stops first if that was not done, and waits for a subscriber that still runs.
    virtual ~MulticastReceiver();

    MulticastReceiver(const MulticastReceiver&) = delete;
    MulticastReceiver& operator=(const MulticastReceiver&) = delete;

    /// Binds group and port and starts the thread. True when the receiver is bound and serves; false, after
    /// an error line, when it cannot be bound, or when a subscriber still holds up the thread of an earlier
    /// start. After a stop() no interface is joined.
    bool start();
    /// Ends the thread and leaves the group on all interfaces. Waits for a subscriber for at most 2 s. Once
    /// it has returned, no event is raised until start(). Never throws.
    void stop();
    /// From here on no event begins. For a thread that must not wait, be it the receiver's own.
    void stopFromWithin() noexcept;

    /// Whether datagrams wait on the socket, or one is being taken off it; false when the receiver does not
    /// run. Never waits: when interfaces are being joined, it says that there may be some.
    bool hasWaiting() const;

    /// Whether the group is joined on the interface of that name.
    bool isJoinedOn(const std::string& name) const;

    /// The platform's reports. Join and leave the group on the interface. One that cannot be joined yet is to
    /// be added again later.
    Outcome onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);

    /// Joins the group on the interface unless that has been done; at a report once more, as the membership
    /// may have gone with a former interface of that index. Throws nothing but std::bad_alloc.
    Outcome add(const std::string& name, const std::string& ip, const InterfaceListing& listing,
                Attempt attempt);
    /// Leaves every interface that is not there any more under one of these names.
    void keepOnly(const std::set<std::string>& names, const InterfaceListing& listing);

protected:
    void onSocketReadable(const Poco::AutoPtr<Poco::Net::ReadableNotification>& notification);
    void onSocketError(const Poco::AutoPtr<Poco::Net::ErrorNotification>& notification);
    void onReactorShutdown(const Poco::AutoPtr<Poco::Net::ShutdownNotification>& notification);

    Outcome joinGroupOnInterface_byIP(const std::string& name, const std::string& ip);
    void leaveGroupOnInterface_byIP(const std::string& name, const std::string& ip);

private:
    struct Service;
    struct Observers;

    /// By interface index, with the address that the platform reported.
    using InterfaceContainer = std::map<Poco::Net::NetworkInterface, Poco::Net::IPAddress>;

    /// The outermost frame of what the reactor calls: what is thrown ends here.
    template <class Notification, void (MulticastReceiver::*handler)(const Poco::AutoPtr<Notification>&)>
    void guarded(const Poco::AutoPtr<Notification>& notification);

    void receive(Poco::Net::DatagramSocket& socket, int size);
    void bind();
    void release();
    void renewService();
    bool endThread(long milliseconds);
    void unsafe_leaveAll();
    void unsafe_joinGroup(const Poco::Net::NetworkInterface& interface);
    void unsafe_leaveGroup(const Poco::Net::NetworkInterface& interface);
    void unsafe_filter();
    void unsafe_renewFilter();

    SDCommunicationHub& m_parent;
    const Poco::Net::SocketAddress m_discoveryAddress;
    mutable std::mutex m_interfacesMutex;  // guards what follows
    InterfaceContainer m_joinedInterfaces;
    std::unique_ptr<Service> m_service;
    std::atomic<bool> m_isTaking{false};  // datagrams off the socket
};

using MulticastDataPtr = MulticastReceiver::MulticastDataPtr;

}  // namespace Multicast

}  // namespace Nubo::ServiceDiscovery
