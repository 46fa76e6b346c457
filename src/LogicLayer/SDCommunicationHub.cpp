#include "LogicLayer/SDCommunicationHub.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "LogicLayer/IncomingEntries.h"
#include "LogicLayer/InstanceNumbers.h"
#include "LogicLayer/ReportDelegate.h"

#include <Common/CurrentException.h>
#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <chrono>
#include <thread>

namespace Nubo::ServiceDiscovery {

using Event = SDStateMachine::ExternalEvent;
using Type = SDService::Type;

namespace {

constexpr auto discoveryGroup = "ff14::4:0";
constexpr std::uint16_t discoveryPort = 30491;

// stop() waits this long for the request handler, and wakes it this often meanwhile; in milliseconds.
constexpr long handlerJoinTime = 1000;
constexpr long handlerWakeInterval = 20;
/// After this time start() assumes that a subscriber blocks the stop() of another thread; in milliseconds.
constexpr long longestStop = 3000;

/// Returns null when the platform has put a null dispatcher into the service locator.
Poco::SharedPtr<OEMInterface::OEMDispatcher> findDispatcher()
{
    Poco::Any found;
    if (!ApplicationServices::getLocator().find(&typeid(OEMInterface::OEMDispatcher), found))
        throw Poco::Exception("Can not start MulticastReceiver, OEM-Dispatcher is not available!");
    return Poco::AnyCast<Poco::SharedPtr<OEMInterface::OEMDispatcher>>(found);
}

/// Runs one step of stopping and logs what it throws, so that the remaining steps still run.
template <class Step>
void guarded(Step step) noexcept
{
    try {
        step();
    }
    catch (...) {
        SD_LOG(Error) << "SDCommunicationHub - failed to stop a part: " << Common::currentException;
    }
}

}  // namespace

SDCommunicationHub::SDCommunicationHub(RegistryCallback serviceDiscovery)
    : m_serviceDiscovery(std::move(serviceDiscovery))
    , m_statemachine(*this)
    , m_outgoing(Multicast::MulticastSender::getMTU())
    , m_sender(discoveryGroup, discoveryPort)
    , m_receiver(*this, discoveryGroup, discoveryPort)
    , m_requestHandler(m_requestHandlerQueue)
{
    bindReports();
    m_receiver.MulticastMessageReceived += Poco::delegate(this, &SDCommunicationHub::onMessageReceived);
    m_requestHandler.OfferService += Poco::delegate(this, &SDCommunicationHub::onOfferServiceReceived);
    m_requestHandler.FindService += Poco::delegate(this, &SDCommunicationHub::onFindServiceReceived);
}

void SDCommunicationHub::bindReports()
{
    auto dispatcher = findDispatcher();
    if (dispatcher.isNull()) {
        SD_LOG(Error) << "SDCommunicationHub - OEM Dispatcher missing, no interface will be reported!";
        return;
    }
    // Removals first: binding the other response reports the present interfaces, and a removal meanwhile must
    // not be missed.
    m_multicastRemoveIfBinding =
        dispatcher->bindResponse(ReportDelegate(this, &SDCommunicationHub::onInterfaceRemoved));
    m_multicastAddIfBinding =
        dispatcher->bindResponse(ReportDelegate(this, &SDCommunicationHub::onInterfaceAdded));
}

SDCommunicationHub::~SDCommunicationHub()
{
    m_multicastAddIfBinding.reset();
    m_multicastRemoveIfBinding.reset();
    if (m_running)
        SDCommunicationHub::stop();
    // A subscriber may block the thread for longer than stop() waits; the members must outlive the thread.
    while (m_requestHandlerThread)
        stopRequestHandler();

    m_receiver.MulticastMessageReceived -= Poco::delegate(this, &SDCommunicationHub::onMessageReceived);
    m_requestHandler.OfferService -= Poco::delegate(this, &SDCommunicationHub::onOfferServiceReceived);
    m_requestHandler.FindService -= Poco::delegate(this, &SDCommunicationHub::onFindServiceReceived);
}

/// Scoped lock of the lifecycle mutex.
class SDCommunicationHub::LifecycleLock
{
public:
    /// Waits without a time limit.
    explicit LifecycleLock(SDCommunicationHub& hub) : m_frame(&hub), m_mutex(hub.m_lifecycleMutex)
    {
        m_mutex.lock();
    }
    /// Waits for at most `atMost` milliseconds; see isHeld().
    LifecycleLock(SDCommunicationHub& hub, long atMost)
        : m_frame(&hub)
        , m_mutex(hub.m_lifecycleMutex)
        , m_isHeld(m_mutex.tryLock(atMost))
    {}
    ~LifecycleLock()
    {
        if (m_isHeld)
            m_mutex.unlock();
    }

    LifecycleLock(const LifecycleLock&) = delete;
    LifecycleLock& operator=(const LifecycleLock&) = delete;

    bool isHeld() const { return m_isHeld; }

private:
    const EngineFrame m_frame;
    Poco::FastMutex& m_mutex;
    const bool m_isHeld = true;
};

bool SDCommunicationHub::start(const Poco::Net::IPAddress& localAddress)
{
    const LifecycleLock lock(*this, longestStop);
    if (!lock.isHeld()) {
        SD_LOG(Error)
            << "SDCommunicationHub - a subscriber still holds up the engine, which is being stopped.";
        return false;
    }
    SD_LOG(Debug) << "SDCommunicationHub::start";
    if (m_running)
        return true;
    try {
        if (!isRequestHandlerFree())
            return false;
        m_sender.init(localAddress);
        if (!m_receiver.start())
            return false;
        m_running = true;  // the following steps never wait for a subscriber
        m_requestHandlerThread = std::make_unique<Poco::Thread>();
        m_requestHandlerThread->start(m_requestHandler);
        m_reportedInterfaces.start();
        m_statemachine.start();
        return true;
    }
    catch (...) {
        SD_LOG(Error) << "SDCommunicationHub - failed to start: " << Common::currentException;
    }
    stopReceiving();
    m_running = false;
    return false;
}

void SDCommunicationHub::stop()
{
    const LifecycleLock lock(*this);
    SD_LOG(Debug) << "SDCommunicationHub::stop";
    if (!m_running)
        return;
    m_isStopping = true;
    stopReceiving();
    guarded([this] { m_statemachine.stop(); });
    m_running = false;  // before m_isStopping: startup() must not take the engine for running in between
    m_isStopping = false;
}

void SDCommunicationHub::stopReceiving() noexcept
{
    guarded([this] { stopRequestHandler(); });
    m_reportedInterfaces.stop();    // also stops the receiver
    m_requestHandlerQueue.clear();  // old datagrams must not be handled after a restart
}

void SDCommunicationHub::stopFromWithin() noexcept
{
    m_receiver.stopFromWithin();
    m_requestHandler.stopFromWithin();
    m_reportedInterfaces.stopFromWithin();
    EngineFrame::releaseThisThread();
    guarded([this] {
        if (m_statemachine.isLockedByThisThread())
            m_statemachine.unsafe_stop();
        else
            m_statemachine.close();
    });
    m_running = false;
}

bool SDCommunicationHub::isOnThisThread() const
{
    return m_statemachine.isLockedByThisThread() ||
           EngineFrame::isOnThisThread(this, &m_statemachine, &m_requestHandler, &m_receiver, &m_sender,
                                       &m_reportedInterfaces);
}

bool SDCommunicationHub::isOfThisProcess() const
{
    return m_process.isThis();
}

/// Returns whether the thread of an earlier run has ended; tries to end it first.
bool SDCommunicationHub::isRequestHandlerFree()
{
    stopRequestHandler();
    if (m_requestHandlerThread)
        SD_LOG(Error) << "SDCommunicationHub - a subscriber still holds up the request handler's thread.";
    return !m_requestHandlerThread;
}

/// Ends the request handler's thread. If this takes longer than handlerJoinTime, the thread is left running.
void SDCommunicationHub::stopRequestHandler()
{
    for (long waited = 0; m_requestHandlerThread && waited < handlerJoinTime; waited += handlerWakeInterval) {
        m_requestHandler.shutdown();
        if (m_requestHandlerThread->tryJoin(handlerWakeInterval))
            m_requestHandlerThread.reset();
    }
}

bool SDCommunicationHub::addService(SDService::Ptr& service)
{
    if (!service.isNull()) {
        // Most services become the first instance. The packet of the trial is then the one that is sent.
        service->setType(Type::ANNOUNCED);
        service->setInstanceId(firstInstance);
        if (!m_outgoing.isSendable(*service))
            return false;
    }
    Event event(Event::HTTP_PUT, service);
    return m_statemachine.onExternalEvent(event);
}

bool SDCommunicationHub::findService(SDService::Ptr& service)
{
    if (!service.isNull()) {
        service->setType(Type::WANTED);
        if (!m_outgoing.isSendable(*service))
            return false;
    }
    Event event(Event::HTTP_GET, service);
    return m_statemachine.onExternalEvent(event);
}

bool SDCommunicationHub::removeService(const std::string& localUuid)
{
    Event event(Event::HTTP_DELETE, nullptr, localUuid);
    return m_statemachine.onExternalEvent(event);
}

std::vector<ServiceStatus> SDCommunicationHub::getServices() const
{
    return m_statemachine.getServices();
}

void SDCommunicationHub::onMessageReceived(MulticastDataPtr& msg)
{
    if (!msg.isNull())
        SD_LOG(Trace) << "SDCommunicationHub::onMessageReceived - message received from "
                      << msg->origin.toString();
    if (msg.isNull() || msg->buffer.empty()) {
        SD_LOG(Warning) << "SDCommunicationHub - empty message received!";
        return;
    }

    if (m_requestHandlerQueue.size() < longestQueue && m_waitingBytes + msg->buffer.size() <= largestQueue)
        m_requestHandlerQueue.enqueueNotification(new SDMessageNotification(msg, &m_waitingBytes));
    else
        m_drops.add();

    reportDrops();
}

bool SDCommunicationHub::letIncomingBeHandled(long atMostMilliseconds) const
{
    using std::chrono::steady_clock;
    const auto end = steady_clock::now() + std::chrono::milliseconds(atMostMilliseconds);
    // Checked in the order in which a datagram passes them, so that none slips by between the two checks.
    while (m_receiver.hasWaiting() || m_waitingBytes != 0) {
        if (steady_clock::now() >= end)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void SDCommunicationHub::reportDrops()
{
    if (const std::uint64_t dropped = m_drops.takeReport())
        SD_LOG(Warning) << "SDCommunicationHub - dropped " << dropped << " received Message(s), at most "
                        << longestQueue << " with " << largestQueue << " Bytes can wait!";
}

void SDCommunicationHub::onInterfaceAdded(OEMInterface::AddServiceDiscoveryInterfacePayload& payload)
{
    m_reportedInterfaces.add(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void SDCommunicationHub::onInterfaceRemoved(OEMInterface::RemoveServiceDiscoveryInterfacePayload& payload)
{
    m_reportedInterfaces.remove(payload.eventData.pInterfaceName, payload.eventData.pInterfaceIP);
}

void SDCommunicationHub::onFindServiceReceived(SDRequestHandler::FindServicePayload& payload)
{
    SD_LOG(Trace) << "onFindServiceReceived - origin(" << payload.origin.toString()
                  << ") FindService: " << IncomingEntries::toText(payload.entryData);
    try {
        const SDService::Ptr service = IncomingEntries::readFind(payload.entryData);
        if (service.isNull())
            return;
        Event event(Event::SOMEIP_FIND, service);
        m_statemachine.onExternalEvent(event);
        payload.result = true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << IncomingEntries::failedToAdd << exception.displayText();
    }
}

void SDCommunicationHub::onOfferServiceReceived(SDRequestHandler::OfferServicePayload& payload)
{
    SD_LOG(Trace) << "onOfferServiceReceived - origin(" << payload.origin.toString()
                  << ")  OfferService: " << IncomingEntries::toText(payload.entryData);
    try {
        const IncomingOffer offer = IncomingEntries::readOffer(payload.entryData, payload.origin);
        SDService::Ptr service = offer.service;
        if (service.isNull())
            return;
        if (service->getTTL() == 0) {
            Event event(Event::SOMEIP_STOPOFFER, service);
            m_statemachine.onExternalEvent(event);
        }
        else if (!m_statemachine.renew(*service)) {
            service->complete(*offer.configuration);
            Event event(Event::SOMEIP_OFFER, service);
            m_statemachine.onExternalEvent(event);
        }
        payload.result = true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << IncomingEntries::failedToAdd << exception.displayText();
    }
}

void SDCommunicationHub::notifyServiceRegistry(ServiceListEventPayload& payload) const
{
    const EngineFrame frame(this);
    const Common::NoReturnInChildren whenDelivered;
    m_serviceDiscovery(payload);
}

bool SDCommunicationHub::isOwnAddress(const Poco::Net::IPAddress& address) const
{
    return m_sender.isOwnAddress(address);
}

Poco::Net::IPAddress SDCommunicationHub::unitAddress() const
{
    return m_sender.unitAddress();
}

bool SDCommunicationHub::isOwnOutgoingAddress(const Poco::Net::SocketAddress& address) const
{
    return m_sender.isOwnOutgoingAddress(address);
}

bool SDCommunicationHub::containsIP(const Poco::Net::NetworkInterface::AddressList& addressList,
                                    const Poco::Net::IPAddress& ip, const std::string& interfaceName)
{
    return Multicast::containsIP(addressList, ip, interfaceName);
}

void SDCommunicationHub::announce(const SDService::Ptr& service)
{
    SD_LOG(Trace) << "SDCommunicationHub::announce(single)";
    announce(std::vector<SDService::Ptr>{service});
}

void SDCommunicationHub::announce(const std::vector<SDService::Ptr>& services)
{
    SD_LOG(Trace) << "SDCommunicationHub::announce";
    if (services.empty()) {
        SD_LOG(Warning) << "SDCommunicationHub - received empty list to announce!";
        return;
    }

    struct Reset
    {
        ~Reset() { outgoing.resetBuffers(); }
        OutgoingDatagrams& outgoing;
    };
    const Reset reset{m_outgoing};
    try {
        for (const SDService::Ptr& service : services)
            m_outgoing.add(*service);
        m_sender.sendMulticast(m_outgoing.externals(), m_outgoing.internals());
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "SDCommunicationHub - Exception caught while announcing services! ("
                      << exception.displayText();
    }
}

}  // namespace Nubo::ServiceDiscovery
