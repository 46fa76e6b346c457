#include "LogicLayer/SDCommunicationHub.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_LoadBalancing.h"
#include "LogicLayer/ReportDelegate.h"
#include "Multicast/InterfaceAdmission.h"
#include "ServiceDiscovery.h"

#include <Common/CurrentException.h>
#include <KELOEMInterfaceLib/OEMDispatcher.h>
#include <KELUtilLib/ApplicationServices.h>

#include <Poco/Any.h>
#include <Poco/Delegate.h>
#include <Poco/Exception.h>
#include <Poco/MemoryStream.h>
#include <Poco/String.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>
#include <thread>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::OptionKeywords;
using Event = SDStateMachine::ExternalEvent;
using Type = SDService::Type;

namespace {

constexpr auto discoveryGroup = "ff14::4:0";
constexpr std::uint16_t discoveryPort = 30491;
constexpr int preallocatedBlocks = 5;
constexpr int unlimitedBlocks = 0;

// How long stop() waits for the request handler, and how often it wakes it meanwhile, in milliseconds.
constexpr long handlerJoinTime = 1000;
constexpr long handlerWakeInterval = 20;
/// After which start() takes a stop() that another thread is in for one that is held up.
constexpr long longestStop = 3000;

constexpr auto failedToAdd = "ServiceDiscovery failed to add Service due to ";

/// Null when the platform has put a null one into the service locator.
Poco::SharedPtr<OEMInterface::OEMDispatcher> findDispatcher()
{
    Poco::Any found;
    if (!ApplicationServices::getLocator().find(&typeid(OEMInterface::OEMDispatcher), found))
        throw Poco::Exception("Can not start MulticastReceiver, OEM-Dispatcher is not available!");
    return Poco::AnyCast<Poco::SharedPtr<OEMInterface::OEMDispatcher>>(found);
}

std::string toText(const SOME_IP_SD_Header::EntryData& data)
{
    std::string text = data.entry.isNull() ? "<no Entry>" : data.entry->toString(0);
    for (const auto& option : data.options)
        text += ", " + option->toString(0);
    return text;
}

/// Puts the option into `slot` if it has the slot's class; a later one replaces an earlier one.
template <class Option>
bool take(const SOME_IP_SD_Option::Ptr& option, Poco::SharedPtr<Option>& slot)
{
    Poco::SharedPtr<Option> candidate = option.cast<Option>();
    if (candidate.isNull())
        return false;
    slot.swap(candidate);
    return true;
}

template <class... Options>
std::size_t countSet(const Poco::SharedPtr<Options>&... slots)
{
    return (std::size_t{0} + ... + (slots.isNull() ? 0u : 1u));
}

SOME_IP_SD_Entry_Service::Ptr makeEntry(const SDService& service, EntryType::Type_t type)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = type;
    fields.serviceID = service.getServiceId();
    fields.instanceID = service.getInstanceId();
    fields.majorVersion = service.getMajorVersion();
    fields.ttl = service.getTTL();
    return new SOME_IP_SD_Entry_Service(fields, service.getMinorVersion());
}

SOME_IP_SD_Option::Ptr makeEndpoint(const NuboServiceDescription& description)
{
    const Poco::Net::IPAddress& ip = description.getIpAddress();
    // From the bytes: a text would bring a scope along, which need not exist any more.
    if (ip.family() == Poco::Net::IPAddress::IPv6)
        return new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT,
                                          static_cast<const std::uint8_t*>(ip.addr()), description.getPort(),
                                          description.getL4Proto());
    return new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, ip.toString(), description.getPort(),
                                      description.getL4Proto());
}

/// The values that a configuration has for one key, where they lie: a neighbour may send thousands of them,
/// and refer to them from thousands of entries.
class ValuesOf
{
public:
    ValuesOf(const SOME_IP_SD_Option_Configuration& configuration, const std::string& key)
        : m_pairs(configuration.getConfigurationPairs())
        , m_key(key)
        , m_first(m_pairs.lower_bound(key))
    {}

    bool empty() const { return !isOfKey(m_first); }
    bool isOne() const { return !empty() && !isOfKey(std::next(m_first)); }
    const std::string& first() const { return m_first->second; }
    std::size_t count() const { return m_pairs.count(m_key); }  ///< takes time for each

private:
    bool isOfKey(ConfigurationPairs::const_iterator pair) const
    {
        return pair != m_pairs.end() && pair->first == m_key;
    }

    const ConfigurationPairs& m_pairs;
    const std::string& m_key;
    const ConfigurationPairs::const_iterator m_first;
};

bool isOnly(const ValuesOf& values, const std::string& expected, const char* what)
{
    if (!values.isOne()) {
        SD_LOG(Debug) << "Skip processing OFFER_SERVICE due to invalid number " << what
                      << "s: " << values.count();
        return false;
    }
    if (values.first() != expected) {
        SD_LOG(Debug) << "Skip processing OFFER_SERVICE due to invalid " << what << ": \"" << values.first()
                      << "\"!";
        return false;
    }
    return true;
}

/// Whether a connection to the wildcard or loopback address leads to the unit that makes it. Some of IPv4 in
/// the form of IPv6 (RFC 4291, 2.5.5.2) do as well: 0.0.0.0/8, "this network", and 127.0.0.0/8.
bool leadsBack(const Poco::Net::IPAddress& ip)
{
    if (!ip.isIPv4Mapped())
        return ip.isWildcard() || ip.isLoopback();
    constexpr std::size_t firstOfIPv4 = 12;
    constexpr std::uint8_t thisNet = 0;
    constexpr std::uint8_t loopbackNet = 127;
    const std::uint8_t net = static_cast<const std::uint8_t*>(ip.addr())[firstOfIPv4];
    return net == thisNet || net == loopbackNet;
}

/// Zeros stand for no sender, but a datagram can come from "::": then a multicast address stands for it, from
/// which none can come.
SDService::SenderAddress senderOf(const Poco::Net::SocketAddress& origin)
{
    SDService::SenderAddress sender{};
    if (origin.family() == Poco::Net::SocketAddress::IPv6)
        std::memcpy(sender.data(), origin.host().addr(), sender.size());
    if (sender == SDService::SenderAddress{})
        sender.front() = 0xff;
    return sender;
}

void require(bool added)
{
    if (!added)
        throw Poco::InvalidArgumentException();
}

/// The packet that offers a service of this unit or finds a wanted one. Its session ID is still to be set.
SOME_IP_SD_Header makePacket(const SDService& service, Type::Type_t type)
{
    try {
        SOME_IP_SD_Header packet(0);
        SOME_IP_SD_Option::Ptr configuration;
        std::uint8_t configurationIndex = 0;
        SOME_IP_SD_Entry_Service::Ptr entry;
        switch (type) {
            case Type::ANNOUNCED:
            case Type::DISCOVERED:
                entry = makeEntry(service, EntryType::OFFER_SERVICE);
                require(packet.addEntry(entry, false));
                entry->setFstOptionRun({0, 1});
                require(packet.addOption(makeEndpoint(service.getNuboDescription()), false));
                configurationIndex = 1;
                break;
            case Type::WANTED:
                entry = makeEntry(service, EntryType::FIND_SERVICE);
                require(packet.addEntry(entry, false));
                break;
            case Type::NONE:
            case Type::ANY:
                throw Poco::InvalidArgumentException();
        }
        // The configuration is always the entry's second run, whether there is a first or not.
        entry->setSndOptionRun({configurationIndex, 1});
        require(packet.addOption(new SOME_IP_SD_Option_Configuration(service.getConfiguration()), false));
        return packet;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "Failed to create SD packet - " << exception.what();
        throw Poco::RuntimeException("Failed to create SD packet");
    }
}

/// Takes a step of stopping: the others follow, whatever becomes of it.
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

std::string bytesOf(const SOME_IP_SD_Header& packet)
{
    std::string bytes(packet.getSize(), '\0');
    Poco::MemoryStreamBuf buffer(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    std::ostream stream(&buffer);  // Poco::MemoryOutputStream would be set up twice
    stream << packet;
    return bytes;
}

/// The bytes of the record's packet, all but its session ID: made once, because what is offered every second
/// is the same for years.
const std::string& packetOf(const SDService& service)
{
    if (service.getPacket().empty())
        service.setPacket(bytesOf(makePacket(service, service.getType())));
    return service.getPacket();
}

}  // namespace

SDCommunicationHub::SDCommunicationHub(ServiceDiscovery& serviceDiscovery)
    : m_serviceDiscovery(serviceDiscovery)
    , m_statemachine(*this)
    , m_bufferPool(Multicast::MulticastSender::getMTU(), preallocatedBlocks, unlimitedBlocks)
    , m_sender(*this, discoveryGroup, discoveryPort)
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
    // Removals first: an interface that goes while the standing ones are being reported must not be missed.
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
        stop();
    // A subscriber may hold the thread up for longer than stop() waits; the parts must outlive it.
    while (m_requestHandlerThread)
        stopRequestHandler();

    m_receiver.MulticastMessageReceived -= Poco::delegate(this, &SDCommunicationHub::onMessageReceived);
    m_requestHandler.OfferService -= Poco::delegate(this, &SDCommunicationHub::onOfferServiceReceived);
    m_requestHandler.FindService -= Poco::delegate(this, &SDCommunicationHub::onFindServiceReceived);
}

/// Holds the lifecycle mutex.
class SDCommunicationHub::LifecycleLock
{
public:
    /// Waits for as long as it takes.
    explicit LifecycleLock(SDCommunicationHub& hub) : m_frame(&hub), m_mutex(hub.m_lifecycleMutex)
    {
        m_mutex.lock();
    }
    /// Waits for so many milliseconds at most.
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
        m_running = true;  // nothing that follows waits for a subscriber
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
    m_running = false;  // while m_isStopping still is set: a start() in between must not take it for running
    m_isStopping = false;
}

void SDCommunicationHub::stopReceiving() noexcept
{
    guarded([this] { stopRequestHandler(); });
    m_reportedInterfaces.stop();    // and the receiver
    m_requestHandlerQueue.clear();  // what was received before must not be handled after a restart
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

/// Whether the thread of an earlier run has ended.
bool SDCommunicationHub::isRequestHandlerFree()
{
    stopRequestHandler();
    if (m_requestHandlerThread)
        SD_LOG(Error) << "SDCommunicationHub - a subscriber still holds up the request handler's thread.";
    return !m_requestHandlerThread;
}

/// Ends the request handler's thread, unless it takes longer than handlerJoinTime; then the thread stays.
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
    if (!service.isNull() && !isSendable(*service, Type::ANNOUNCED))
        return false;
    Event event(Event::HTTP_PUT, service);
    return m_statemachine.onExternalEvent(event);
}

bool SDCommunicationHub::findService(SDService::Ptr& service)
{
    if (!service.isNull() && !isSendable(*service, Type::WANTED))
        return false;
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

/// Builds the record's packet on trial, so that a record that cannot be sent never joins those that are
/// sent together.
bool SDCommunicationHub::isSendable(const SDService& service, Type::Type_t type) const
{
    const std::string& name = service.getNuboDescription().getName();
    if (name.empty()) {
        SD_LOG(Error) << "SDCommunicationHub - a Service without a name cannot be put on the wire!";
        return false;
    }
    try {
        const std::size_t size = makePacket(service, type).getSize();
        if (size <= Multicast::MulticastSender::getMTU())
            return true;
        SD_LOG(Error) << "SDCommunicationHub - Service \"" << name
                      << "\" cannot be put on the wire: its packet of " << size
                      << " Bytes exceeds the MTU of " << Multicast::MulticastSender::getMTU() << " Bytes!";
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "SDCommunicationHub - Service \"" << name
                      << "\" cannot be put on the wire: " << exception.displayText();
    }
    return false;
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
    // In the order in which a datagram passes them: one that moves on meanwhile is seen further on.
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
                  << ") FindService: " << toText(payload.entryData);
    if (payload.entryData.entry.cast<SOME_IP_SD_Entry_Service>().isNull()) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to Entry being of wrong class!";
        return;
    }
    SOME_IP_SD_Option_Configuration::Ptr configuration;
    SOME_IP_SD_Option_LoadBalancing::Ptr loadBalancing;
    if (!extractFindServiceOptions(payload.entryData.options, configuration, loadBalancing))
        return;

    const ValuesOf names(*configuration, OptionKeywords::NuBo_Servicename);
    if (names.empty()) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to missing name record in Configuration Option!";
        return;
    }
    if (!names.isOne())
        SD_LOG(Warning)
            << "Found multiple names while handling FIND_SERVICE Configuration Option, using first: \""
            << names.first() << "\" !";
    try {
        Event event(Event::SOMEIP_FIND, new SDService(names.first()));
        m_statemachine.onExternalEvent(event);
        payload.result = true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << failedToAdd << exception.displayText();
    }
}

void SDCommunicationHub::onOfferServiceReceived(SDRequestHandler::OfferServicePayload& payload)
{
    SD_LOG(Trace) << "onOfferServiceReceived - origin(" << payload.origin.toString()
                  << ")  OfferService: " << toText(payload.entryData);
    const SOME_IP_SD_Entry_Service::Ptr entry = payload.entryData.entry.cast<SOME_IP_SD_Entry_Service>();
    if (entry.isNull()) {
        SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to Entry being of wrong class!";
        return;
    }
    SOME_IP_SD_Option_IPv4::Ptr ipv4;
    SOME_IP_SD_Option_IPv6::Ptr ipv6;
    SOME_IP_SD_Option_Configuration::Ptr configuration;
    SOME_IP_SD_Option_LoadBalancing::Ptr loadBalancing;
    if (!extractOfferServiceOptions(payload.entryData.options, ipv4, ipv6, configuration, loadBalancing))
        return;

    // Offers of other protocols on the same group are normal traffic.
    if (!isOnly(ValuesOf(*configuration, OptionKeywords::NuBo_ApplProtocolKey),
                OptionKeywords::NuBo_ApplProtocolValue, "Applicationprotocol") ||
        !isOnly(ValuesOf(*configuration, OptionKeywords::NuBo_RecordVersionKey),
                OptionKeywords::NuBo_RecordVersionValue, "TXT-record version"))
        return;

    try {
        SDService::Ptr service = SDService::instanceOf(*entry, *ipv6, *configuration);
        if (service.isNull()) {
            SD_LOG(Error) << failedToAdd << Poco::InvalidArgumentException().displayText();
            return;
        }
        const Poco::Net::IPAddress& ip = service->getNuboDescription().getIpAddress();
        if (leadsBack(ip)) {
            SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid IP address \"" << ip.toString()
                          << "\".";
            return;
        }
        service->setSender(senderOf(payload.origin));
        if (service->getTTL() == 0) {
            Event event(Event::SOMEIP_STOPOFFER, service);
            m_statemachine.onExternalEvent(event);
        }
        else if (!m_statemachine.renew(*service)) {
            service->complete(*configuration);
            Event event(Event::SOMEIP_OFFER, service);
            m_statemachine.onExternalEvent(event);
        }
        payload.result = true;
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << failedToAdd << exception.displayText();
    }
}

bool SDCommunicationHub::extractOfferServiceOptions(
    const std::vector<SOME_IP_SD_Option::Ptr>& options, Poco::SharedPtr<SOME_IP_SD_Option_IPv4>& ipv4,
    Poco::SharedPtr<SOME_IP_SD_Option_IPv6>& ipv6, Poco::SharedPtr<SOME_IP_SD_Option_Configuration>& config,
    Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing) const
{
    const std::size_t n = options.size();
    if (n < 2 || n > 4) {
        // Kept for compatibility: the text says 1.
        SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid amount of Options: " << n
                      << "/[1-4]!";
        return false;
    }
    for (const SOME_IP_SD_Option::Ptr& option : options)
        take(option, ipv4) || take(option, ipv6) || take(option, config) || take(option, loadBalancing);

    const std::size_t found = countSet(ipv4, ipv6, config, loadBalancing);
    if (!ipv6.isNull() && !config.isNull() && found == n)
        return true;
    SD_LOG(Error) << "Failed to handle OFFER_SERVICE due to invalid Option types! (Found " << found << "/"
                  << n << " Options)";
    SD_LOG(Trace) << "Found Options:" << (ipv4.isNull() ? "" : " IPv4 Option")
                  << (ipv6.isNull() ? "" : " IPv6 Option") << (config.isNull() ? "" : " Configuration Option")
                  << (loadBalancing.isNull() ? "" : " LoadBalancing Option");
    return false;
}

bool SDCommunicationHub::extractFindServiceOptions(
    const std::vector<SOME_IP_SD_Option::Ptr>& options,
    Poco::SharedPtr<SOME_IP_SD_Option_Configuration>& config,
    Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>& loadBalancing) const
{
    const std::size_t n = options.size();
    if (n < 1 || n > 2) {
        SD_LOG(Error) << "Failed to handle FIND_SERVICE due to invalid amount of Options: " << n << "/[1-2]!";
        return false;
    }
    for (const SOME_IP_SD_Option::Ptr& option : options)
        take(option, config) || take(option, loadBalancing);

    if (!config.isNull() && countSet(config, loadBalancing) == n)
        return true;
    SD_LOG(Error) << "Failed to handle FIND_SERVICE due to invalid Option types!";
    return false;
}

void SDCommunicationHub::notifyServiceRegistry(ServiceDiscovery::ServiceListEventPayload& payload) const
{
    const EngineFrame frame(this);
    const Common::NoReturnInChildren whenDelivered;
    m_serviceDiscovery.ServiceListChanged.notify(&m_serviceDiscovery, payload);
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
    return std::any_of(addressList.begin(), addressList.end(), [&](const auto& entry) {
        const Poco::Net::IPAddress& address = entry.template get<Poco::Net::NetworkInterface::IP_ADDRESS>();
        if (!Multicast::isSameAddress(address, ip))
            return false;  // most are told apart without texts: for a scope Poco asks the system for its name
        const std::string plain = ip.toString();
        const std::string text = address.toString();
        // Poco writes addresses in lower case, the scope included.
        return text == plain || text == Poco::toLower(plain + "%" + interfaceName);
    });
}

std::uint16_t SDCommunicationHub::nextSessionID()
{
    // 0 and 0xFFFF are never sent.
    if (m_senderSessionID == 0xFFFF)
        m_senderSessionID = 1;
    return m_senderSessionID++;
}

/// Puts the record's packet behind those that are there already, or into a datagram of its own.
void SDCommunicationHub::storeServiceInBuffer(const SDService& service, Datagrams& buffers)
{
    const std::string& packet = packetOf(service);
    const std::uint16_t sessionID = nextSessionID();
    const std::size_t mtu = Multicast::MulticastSender::getMTU();
    if (packet.size() > mtu)
        throw Poco::DataFormatException("SD packet exceeds the MTU");
    if (buffers.empty() || buffers.back().second + packet.size() > mtu)
        buffers.emplace_back(static_cast<char*>(m_bufferPool.get()), 0);
    auto& [block, size] = buffers.back();
    char* const begin = block + size;
    std::copy(packet.begin(), packet.end(), begin);
    SOME_IP::overwriteSessionID(begin, sessionID);
    size += packet.size();
}

void SDCommunicationHub::resetBuffers()
{
    for (Datagrams* buffers : {&m_bufferExternals, &m_bufferInternals}) {
        for (const auto& datagram : *buffers)
            m_bufferPool.release(datagram.first);
        buffers->clear();
    }
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

    struct BufferReset
    {
        ~BufferReset() { hub.resetBuffers(); }
        SDCommunicationHub& hub;
    };
    const BufferReset reset{*this};
    try {
        for (const SDService::Ptr& service : services) {
            const std::uint32_t port = service->getNuboDescription().getPort();
            const bool isInternal =
                port >= s_internalPortRange.lowerBoundary && port <= s_internalPortRange.upperBoundary;
            storeServiceInBuffer(*service, isInternal ? m_bufferInternals : m_bufferExternals);
        }
        m_sender.sendMulticast(m_bufferExternals, m_bufferInternals);
    }
    catch (const Poco::Exception& exception) {
        SD_LOG(Error) << "SDCommunicationHub - Exception caught while announcing services! ("
                      << exception.displayText();
    }
}

}  // namespace Nubo::ServiceDiscovery
