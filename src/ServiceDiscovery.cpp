#include "ServiceDiscovery.h"

#include "DataLayer/Log.h"
#include "LogicLayer/SDCommunicationHub.h"

#include <Poco/Exception.h>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;

namespace {

/// Does the registry's request; what is wrong with its arguments is logged and answered with false.
template <class Request>
bool answered(const char* request, Request run)
{
    try {
        return run();
    }
    catch (const Poco::InvalidArgumentException& exception) {
        SD_LOG(Error) << "ServiceDiscovery failed to " << request << " Service due to " << exception.name()
                      << " - " << exception.message();
        return false;
    }
}

}  // namespace

ServiceDiscovery::ServiceListEventPayload::ServiceListEventPayload(EventType eventType,
                                                                   const NuboServiceDescription* service,
                                                                   const std::string& localUuid)
    : m_eventType(eventType)
    , m_service(service)
    , m_localUuid(localUuid)
{}

ServiceDiscovery::ServiceDiscovery() : m_sdHub(new SDCommunicationHub(*this)) {}

ServiceDiscovery::~ServiceDiscovery() = default;

bool ServiceDiscovery::startup(const Poco::Net::IPAddress& address)
{
    if (isCalledFromSubscriber())
        return false;
    if (m_sdHub->isRunning()) {
        SD_LOG(Warning) << "ServiceDiscovery is already running.";
        return true;
    }
    return m_sdHub->start(address);
}

bool ServiceDiscovery::shutdown()
{
    if (isCalledFromSubscriber())
        return false;
    if (m_sdHub->isRunning())
        m_sdHub->stop();
    return true;
}

bool ServiceDiscovery::running() const
{
    return m_sdHub->isRunning();
}

bool ServiceDiscovery::addService(const NuboServiceDescription& description)
{
    if (isCalledFromSubscriber())
        return false;
    return answered("add", [&] {
        SDService::Ptr service = new SDService(description);
        return m_sdHub->addService(service);
    });
}

bool ServiceDiscovery::findService(const NuboServiceDescription& description)
{
    if (isCalledFromSubscriber())
        return false;
    return answered("find", [&] {
        // Any instance, any version: receivers pass over an entry with the reserved instance ID 0.
        SDService::Ptr service = new SDService(description.getName());
        service->setInstanceId(EntryValues::InstanceID_Any);
        service->setMajorVersion(EntryValues::MajorVersion_Any);
        return m_sdHub->findService(service);
    });
}

bool ServiceDiscovery::removeService(const std::string& localUuid)
{
    if (isCalledFromSubscriber())
        return false;
    return answered("remove", [&] { return m_sdHub->removeService(localUuid); });
}

std::vector<ServiceStatus> ServiceDiscovery::getServices() const
{
    if (isCalledFromSubscriber())
        return {};
    return m_sdHub->getServices();
}

bool ServiceDiscovery::isCalledFromSubscriber() const
{
    if (!m_sdHub->isNotifyingOnThisThread())
        return false;
    SD_LOG(Error) << "ServiceDiscovery - call from within ServiceListChanged is not possible.";
    return true;
}

}  // namespace Nubo::ServiceDiscovery
