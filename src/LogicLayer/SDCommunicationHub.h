#pragma once

#include "LogicLayer/DropCounter.h"
#include "LogicLayer/SDMessageNotification.h"
#include "LogicLayer/SDRequestHandler.h"
#include "LogicLayer/SDStateMachine.h"
#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"
#include "Multicast/ReportedInterfaces.h"
#include "ServiceDiscovery.h"

#include <Common/OwnProcess.h>
#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <Poco/MemoryPool.h>
#include <Poco/Mutex.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_Configuration;
class SOME_IP_SD_Option_IPv4;
class SOME_IP_SD_Option_IPv6;
class SOME_IP_SD_Option_LoadBalancing;

/// Holds the engine together: owns its parts, connects their events, turns the facade's requests and the
/// received entries into events of the state machine, and the state machine's decisions into packets.
class SDCommunicationHub
{
public:
    using SDMessageNotification = Nubo::ServiceDiscovery::SDMessageNotification;

    /// A closed range of ports.
    struct InternalPortRange_t
    {
        std::uint32_t lowerBoundary;
        std::uint32_t upperBoundary;
    };

    /// Services on these ports are announced on interfaces with link-local addresses only.
    static constexpr InternalPortRange_t s_internalPortRange{47000, 49151};

    /// At most so many received datagrams wait for the request handler, and so many bytes of them; more are
    /// dropped: while they are handled, nothing newer is heard.
    static constexpr int longestQueue = 10000;
    static constexpr std::size_t largestQueue = std::size_t{4} * 1024 * 1024;

    /// Throws Poco::Exception when the service locator has no platform dispatcher. One that is null is an
    /// error in the log, and no interface is ever reported.
    explicit SDCommunicationHub(ServiceDiscovery& serviceDiscovery);
    virtual ~SDCommunicationHub();

    SDCommunicationHub(const SDCommunicationHub&) = delete;
    SDCommunicationHub& operator=(const SDCommunicationHub&) = delete;

    /// Sends packets for one service, or for several in one go: an OFFER for a service of this unit, a FIND
    /// for a wanted one. Not to be called by two threads at once: the state machine calls with its mutex
    /// held.
    virtual void announce(const SDService::Ptr& service);
    virtual void announce(const std::vector<SDService::Ptr>& services);

    /// True when the engine runs on the unit's address, now or already. False, with the reason in the log,
    /// when the receiver cannot be bound, when a subscriber still holds up what runs or ran, or when memory
    /// or threads are short; then nothing runs. Never throws.
    bool start(const Poco::Net::IPAddress& localAddress);
    /// Whatever fails on the way, the engine has stopped when it returns. Never throws.
    void stop();
    /// The same for a thread that delivers an event, or writes a line of the log, and must not wait for
    /// itself: withdraws the services. The threads stay.
    void stopFromWithin() noexcept;
    bool isRunning() const { return m_running; }
    bool isStopping() const { return m_isStopping; }

    /// Whether the calling thread works for this engine, or holds a lock of it.
    bool isOnThisThread() const;
    /// Whether the engine was made by this process, not by one that was forked from.
    bool isOfThisProcess() const;

    /// Requests of the registry. False, after an error line, for a record that cannot be put on the wire.
    bool addService(SDService::Ptr& service);
    bool findService(SDService::Ptr& service);
    bool removeService(const std::string& localUuid);
    std::vector<ServiceStatus> getServices() const;

    /// A datagram was received: queues it. Runs on the receiver's thread.
    void onMessageReceived(MulticastDataPtr& msg);

    /// An entry was received. Run on the request handler's thread.
    void onFindServiceReceived(SDRequestHandler::FindServicePayload& payload);
    void onOfferServiceReceived(SDRequestHandler::OfferServicePayload& payload);

    /// Raises the facade's event. Called by the state machine with its mutex held.
    void notifyServiceRegistry(ServiceDiscovery::ServiceListEventPayload& payload) const;

    /// Waits until everything that was received is handled; false when that takes longer. Not to be called
    /// with a mutex of the engine held.
    bool letIncomingBeHandled(long atMostMilliseconds) const;

    /// Writes the counted warnings that are due.
    void reportDrops();

    /// Whether it is one of the addresses at which this unit offers services.
    bool isOwnAddress(const Poco::Net::IPAddress& address) const;
    /// The one that the unit was started on, with no scope; the wildcard before that.
    Poco::Net::IPAddress unitAddress() const;
    /// Grows with every change of these addresses.
    std::uint64_t addressChanges() const { return m_sender.addressChanges(); }
    /// Whether the address is that of one of this unit's sending sockets.
    bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& address) const;

    /// Whether an interface's address list holds the address, with or without the interface as its scope.
    static bool containsIP(const Poco::Net::NetworkInterface::AddressList& addressList,
                           const Poco::Net::IPAddress& ip, const std::string& interfaceName);

private:
    /// Datagrams in pool blocks, with the bytes that each of them has by now.
    using Datagrams = Multicast::MulticastSender::MulticastData;

    void bindReports();
    void onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);
    class LifecycleLock;

    void stopReceiving() noexcept;
    bool isRequestHandlerFree();
    void stopRequestHandler();

    bool extractOfferServiceOptions(const std::vector<SOME_IP_SD_Option::Ptr>& options,
                                    Poco::SharedPtr<SOME_IP_SD_Option_IPv4>& ipv4,
                                    Poco::SharedPtr<SOME_IP_SD_Option_IPv6>& ipv6,
                                    Poco::SharedPtr<SOME_IP_SD_Option_Configuration>& config,
                                    Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing) const;
    bool extractFindServiceOptions(const std::vector<SOME_IP_SD_Option::Ptr>& options,
                                   Poco::SharedPtr<SOME_IP_SD_Option_Configuration>& config,
                                   Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing) const;

    bool isSendable(const SDService& service, SDService::Type::Type_t type) const;
    void storeServiceInBuffer(const SDService& service, Datagrams& buffers);
    void resetBuffers();
    std::uint16_t nextSessionID();

    ServiceDiscovery& m_serviceDiscovery;
    SDStateMachine m_statemachine;
    OEMInterface::ResponseBindingPtr m_multicastAddIfBinding;
    OEMInterface::ResponseBindingPtr m_multicastRemoveIfBinding;
    Poco::MemoryPool m_bufferPool;
    Datagrams m_bufferExternals;
    Datagrams m_bufferInternals;
    Multicast::MulticastSender m_sender;
    Multicast::MulticastReceiver m_receiver;
    std::atomic<std::size_t> m_waitingBytes{0};  // of the queue
    Poco::NotificationQueue m_requestHandlerQueue;
    SDRequestHandler m_requestHandler;
    std::unique_ptr<Poco::Thread> m_requestHandlerThread;  // a new one for each start
    std::atomic<bool> m_running{false};
    std::uint16_t m_senderSessionID = 1;

    Multicast::ReportedInterfaces m_reportedInterfaces{m_receiver, m_sender};
    Poco::FastMutex m_lifecycleMutex;  // serialises start and stop
    std::atomic<bool> m_isStopping{false};
    const Common::OwnProcess m_process;
    DropCounter m_drops;
};

}  // namespace Nubo::ServiceDiscovery
