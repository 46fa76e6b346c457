#pragma once

#include "DataLayer/ServiceEvents.h"
#include "LogicLayer/DropCounter.h"
#include "LogicLayer/Engine.h"
#include "LogicLayer/OutgoingDatagrams.h"
#include "LogicLayer/SDMessageNotification.h"
#include "LogicLayer/SDRequestHandler.h"
#include "LogicLayer/SDStateMachine.h"
#include "Multicast/MulticastReceiver.h"
#include "Multicast/MulticastSender.h"
#include "Multicast/OutgoingAddresses.h"
#include "Multicast/ReportedInterfaces.h"

#include <Common/OwnProcess.h>
#include <KELOEMInterfaceLib/OEMDispatcherCalls.h>

#include <Poco/Mutex.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/NotificationQueue.h>
#include <Poco/Thread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Owns the engine's parts and connects their events. Translates the facade's requests and received entries
/// into events of the state machine, and the state machine's decisions into packets.
class SDCommunicationHub : public Engine, public Multicast::OutgoingAddresses
{
public:
    using SDMessageNotification = Nubo::ServiceDiscovery::SDMessageNotification;

    /// Delivers an event to the registry's subscribers. Passes on what they throw.
    using RegistryCallback = std::function<void(ServiceListEventPayload& payload)>;

    using InternalPortRange_t = OutgoingDatagrams::InternalPortRange_t;
    static constexpr InternalPortRange_t s_internalPortRange = OutgoingDatagrams::s_internalPortRange;

    /// Limits of the queue of received datagrams that wait for the request handler: number and bytes. Further
    /// datagrams are dropped, because newer ones would have to wait for a longer queue.
    static constexpr int longestQueue = 10000;
    static constexpr std::size_t largestQueue = std::size_t{4} * 1024 * 1024;

    /// Throws Poco::Exception when the service locator has no platform dispatcher. If the dispatcher is null,
    /// logs an error; no interface is ever reported then.
    explicit SDCommunicationHub(RegistryCallback serviceDiscovery);
    /// Delivers events through the facade's ServiceListChanged. The facade must outlive the hub.
    template <class Facade, class = decltype(std::declval<Facade&>().ServiceListChanged)>
    explicit SDCommunicationHub(Facade& facade)
        : SDCommunicationHub(RegistryCallback([&facade](ServiceListEventPayload& payload) {
            facade.ServiceListChanged.notify(&facade, payload);
        }))
    {}
    ~SDCommunicationHub() override;

    /// Send packets for one service, or for several at once: an OFFER for a service of this unit, a FIND for
    /// a wanted one. Not thread-safe: the state machine holds its mutex when it calls them.
    virtual void announce(const SDService::Ptr& service);
    virtual void announce(const std::vector<SDService::Ptr>& services);

    bool start(const Poco::Net::IPAddress& localAddress) override;
    void stop() override;
    void stopFromWithin() noexcept override;
    bool isRunning() const override { return m_running; }
    bool isStopping() const override { return m_isStopping; }
    bool isOnThisThread() const override;
    bool isOfThisProcess() const override;

    bool addService(SDService::Ptr& service) override;
    bool findService(SDService::Ptr& service) override;
    bool removeService(const std::string& localUuid) override;
    std::vector<ServiceStatus> getServices() const override;

    /// Queues a received datagram. Called on the receiver's thread.
    void onMessageReceived(MulticastDataPtr& msg);

    /// Handle a received entry. Called on the request handler's thread.
    void onFindServiceReceived(SDRequestHandler::FindServicePayload& payload);
    void onOfferServiceReceived(SDRequestHandler::OfferServicePayload& payload);

    /// Raises the facade's event. The state machine holds its mutex when it calls this.
    void notifyServiceRegistry(ServiceListEventPayload& payload) const;

    /// Waits until all received datagrams have been handled. Returns false if that takes longer. The caller
    /// must hold no mutex of the engine.
    bool letIncomingBeHandled(long atMostMilliseconds) const;

    /// Logs the number of dropped datagrams when a report is due.
    void reportDrops();

    /// Whether this unit offers services at the address.
    bool isOwnAddress(const Poco::Net::IPAddress& address) const;
    /// Returns the address on which the unit was started, without a scope, or the wildcard before a start.
    Poco::Net::IPAddress unitAddress() const;
    /// Increases with every change of these addresses.
    std::uint64_t addressChanges() const { return m_sender.addressChanges(); }
    /// Whether one of this unit's sending sockets has the address.
    bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& address) const override;

    /// Whether an interface's address list contains the address, with or without the interface as its scope.
    static bool containsIP(const Poco::Net::NetworkInterface::AddressList& addressList,
                           const Poco::Net::IPAddress& ip, const std::string& interfaceName);

protected:
    void onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload);
    void onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload);

private:
    class LifecycleLock;

    void bindReports();

    void stopReceiving() noexcept;
    bool isRequestHandlerFree();
    void stopRequestHandler();

protected:
    const RegistryCallback m_serviceDiscovery;
    SDStateMachine m_statemachine;
    OutgoingDatagrams m_outgoing;
    Multicast::MulticastSender m_sender;
    Multicast::MulticastReceiver m_receiver;
    std::atomic<std::size_t> m_waitingBytes{0};  // size of the datagrams in the queue
    Poco::NotificationQueue m_requestHandlerQueue;
    SDRequestHandler m_requestHandler;
    std::unique_ptr<Poco::Thread> m_requestHandlerThread;  // a new one for each start
    std::atomic<bool> m_running{false};

    Multicast::ReportedInterfaces m_reportedInterfaces{m_receiver, m_sender};
    Poco::FastMutex m_lifecycleMutex;  // serialises start and stop
    std::atomic<bool> m_isStopping{false};
    const Common::OwnProcess m_process;  // the process that created the engine
    DropCounter m_drops;
    // Released before the members above, to which they bring reports, also if the constructor throws.
    OEMInterface::ResponseBindingPtr m_multicastRemoveIfBinding;
    OEMInterface::ResponseBindingPtr m_multicastAddIfBinding;
};

}  // namespace Nubo::ServiceDiscovery
