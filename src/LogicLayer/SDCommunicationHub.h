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

#include <unistd.h>

namespace Nubo::ServiceDiscovery {

/// Holds the engine together: owns its parts, connects their events, turns the facade's requests and the
/// received entries into events of the state machine, and the state machine's decisions into packets.
class SDCommunicationHub : public Engine, public Multicast::OutgoingAddresses
{
public:
    using SDMessageNotification = Nubo::ServiceDiscovery::SDMessageNotification;

    /// Delivers an event to the registry's subscribers. What they throw passes to the caller.
    using RegistryCallback = std::function<void(ServiceListEventPayload& payload)>;

    using InternalPortRange_t = OutgoingDatagrams::InternalPortRange_t;
    static constexpr InternalPortRange_t s_internalPortRange = OutgoingDatagrams::s_internalPortRange;

    /// At most so many received datagrams wait for the request handler, and so many bytes of them; more are
    /// dropped: while they are handled, nothing newer is heard.
    static constexpr int longestQueue = 10000;
    static constexpr std::size_t largestQueue = std::size_t{4} * 1024 * 1024;

    /// Throws Poco::Exception when the service locator has no platform dispatcher. One that is null is an
    /// error in the log, and no interface is ever reported.
    explicit SDCommunicationHub(RegistryCallback serviceDiscovery);
    /// Raises the facade's ServiceListChanged.
    template <class Facade, class = decltype(std::declval<Facade&>().ServiceListChanged)>
    explicit SDCommunicationHub(Facade& facade)
        : SDCommunicationHub(RegistryCallback([&facade](ServiceListEventPayload& payload) {
            facade.ServiceListChanged.notify(&facade, payload);
        }))
    {}
    ~SDCommunicationHub() override;

    /// Sends packets for one service, or for several in one go: an OFFER for a service of this unit, a FIND
    /// for a wanted one. Not to be called by two threads at once: the state machine calls with its mutex
    /// held.
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

    /// A datagram was received: queues it. Runs on the receiver's thread.
    void onMessageReceived(MulticastDataPtr& msg);

    /// An entry was received. Run on the request handler's thread.
    void onFindServiceReceived(SDRequestHandler::FindServicePayload& payload);
    void onOfferServiceReceived(SDRequestHandler::OfferServicePayload& payload);

    /// Raises the facade's event. Called by the state machine with its mutex held.
    void notifyServiceRegistry(ServiceListEventPayload& payload) const;

    /// Writes the counted warnings that are due.
    void reportDrops();

    /// Whether it is one of the addresses at which this unit offers services.
    bool isOwnAddress(const Poco::Net::IPAddress& address) const;
    /// Grows with every change of these addresses.
    std::uint64_t addressChanges() const { return m_sender.addressChanges(); }
    /// Whether the address is that of one of this unit's sending sockets.
    bool isOwnOutgoingAddress(const Poco::Net::SocketAddress& address) const override;

    /// Whether an interface's address list holds the address, with or without the interface as its scope.
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
    OEMInterface::ResponseBindingPtr m_multicastAddIfBinding;
    OEMInterface::ResponseBindingPtr m_multicastRemoveIfBinding;
    Multicast::MulticastSender m_sender;
    Multicast::MulticastReceiver m_receiver;
    std::atomic<std::size_t> m_waitingBytes{0};  // of the queue
    Poco::NotificationQueue m_requestHandlerQueue;
    SDRequestHandler m_requestHandler;
    std::unique_ptr<Poco::Thread> m_requestHandlerThread;  // a new one for each start
    std::atomic<bool> m_running{false};

    Multicast::ReportedInterfaces m_reportedInterfaces{m_receiver, m_sender};
    Poco::FastMutex m_lifecycleMutex;  // serialises start and stop
    std::atomic<bool> m_isStopping{false};
    const pid_t m_process = ::getpid();  // that the engine belongs to
    DropCounter m_drops;
};

}  // namespace Nubo::ServiceDiscovery
