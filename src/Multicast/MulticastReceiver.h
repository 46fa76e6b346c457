#pragma once

#include "Multicast/InterfaceAdmission.h"
#include "Multicast/OutgoingAddresses.h"

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

namespace Nubo::ServiceDiscovery::Multicast {

/// Receives datagrams of the discovery group on every interface that the platform reports, and raises an
/// event for each datagram that another unit sent. It uses one socket, served by a dedicated thread.
class MulticastReceiver
{
public:
    /// One received datagram.
    struct MulticastData
    {
        using MulticastDataType = char;

        /// Copies `size` bytes.
        MulticastData(const char* bytes, std::size_t size, const Poco::Net::SocketAddress& sender);
        /// Moves the bytes.
        MulticastData(Poco::Buffer<MulticastDataType>&& bytes, const Poco::Net::SocketAddress& sender);

        Poco::Buffer<MulticastDataType> buffer;  ///< exactly the bytes received
        Poco::Net::SocketAddress origin;         ///< the sender
    };
    using MulticastDataPtr = Poco::SharedPtr<MulticastData>;

    /// Raised for every datagram of another unit, on the receiver's thread. Subscribers must return promptly
    /// and leave longer work to another thread.
    Poco::BasicEvent<MulticastDataPtr, Poco::FastMutex> MulticastMessageReceived;

    /// Opens the socket without binding it; interfaces can already be added. `parent` must outlive the
    /// receiver. Throws Poco::Net::NetException when the system does not support IPv6.
    MulticastReceiver(const OutgoingAddresses& parent, const std::string& groupHost, std::uint16_t port);
    /// Stops the receiver if necessary, and waits without a time limit for a running subscriber.
    virtual ~MulticastReceiver();

    MulticastReceiver(const MulticastReceiver&) = delete;
    MulticastReceiver& operator=(const MulticastReceiver&) = delete;

    /// Binds the socket to group and port and starts the thread. Returns true when the receiver runs. Logs an
    /// error and returns false when it cannot bind, or when a subscriber still blocks the thread of an
    /// earlier start. After a stop(), interfaces must be added again.
    bool start();
    /// Ends the thread and leaves the group on all interfaces. Waits for a subscriber for at most 2 s. Raises
    /// no event after it has returned, until start(). Never throws.
    void stop();
    /// Prevents further events. For threads that must not wait, such as the receiver's own.
    void stopFromWithin() noexcept;

    /// Whether datagrams wait on the socket or one is being read from it; false when the receiver does not
    /// run. Never waits: returns true while another thread joins or leaves interfaces.
    bool hasWaiting() const;

    /// Whether the group is joined on the interface of that name.
    bool isJoinedOn(const std::string& name) const;

    /// Handle the platform's reports: join or leave the group on the interface. On Outcome::Pending the
    /// caller adds the interface again later.
    Outcome onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);

    /// Joins the group on the interface unless it is already joined. Upon a report joins once more, because
    /// the membership may have disappeared with a former interface of the same index. Throws only
    /// std::bad_alloc.
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

    /// Sorted by interface index; the values are the addresses that the platform reported.
    using InterfaceContainer = std::map<Poco::Net::NetworkInterface, Poco::Net::IPAddress>;

    /// Outermost function that the reactor calls; catches all exceptions.
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

    const OutgoingAddresses& m_parent;
    const Poco::Net::SocketAddress m_discoveryAddress;
    mutable std::mutex m_interfacesMutex;  // guards the members below
    InterfaceContainer m_joinedInterfaces;
    std::unique_ptr<Service> m_service;
    std::atomic<bool> m_isTaking{false};  // reads datagrams from the socket
};

using MulticastDataPtr = MulticastReceiver::MulticastDataPtr;

}  // namespace Nubo::ServiceDiscovery::Multicast
