#include "ServiceDiscovery.h"

#include "DataLayer/EngineFrame.h"
#include "DataLayer/Log.h"
#include "LogicLayer/Engine.h"
#include "LogicLayer/SDCommunicationHub.h"

#include <Poco/Exception.h>

#include <mutex>
#include <utility>
#include <vector>

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;

namespace {

/// Runs the registry's request. Logs an error and returns false when an argument is invalid.
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

/// Keeps the engine alive for ever, because its threads still use it, or because it shares its sockets with
/// another process.
void abandon(const Poco::SharedPtr<Engine>& engine)
{
    static auto& abandoned = *new std::vector<Poco::SharedPtr<Engine>>;
    static std::mutex mutex;
    const std::lock_guard<std::mutex> lock(mutex);
    abandoned.push_back(engine);
}

}  // namespace

ServiceDiscovery::ServiceDiscovery()
    : ServiceDiscovery(Poco::SharedPtr<Engine>(new SDCommunicationHub(*this)))
{}

ServiceDiscovery::ServiceDiscovery(Poco::SharedPtr<Engine> engine)
    : m_sdHub(std::move(engine))
    , m_isRunning([this] { return m_sdHub->isRunning() && m_sdHub->isOfThisProcess(); })
{}

ServiceDiscovery::~ServiceDiscovery()
{
    if (m_sdHub.isNull() || (m_sdHub->isOfThisProcess() && !m_sdHub->isOnThisThread()))
        return;
    if (m_sdHub->isOfThisProcess())
        m_sdHub->stopFromWithin();  // this engine's thread called exit() and must not wait for itself
    abandon(m_sdHub);
}

bool ServiceDiscovery::startup(const Poco::Net::IPAddress& address)
{
    if (isRefused())
        return false;
    if (m_sdHub->isRunning() && !m_sdHub->isStopping()) {
        SD_LOG(Warning) << "ServiceDiscovery is already running.";
        return true;
    }
    if (address.family() != Poco::Net::IPAddress::IPv6 || address.isWildcard() || address.isMulticast()) {
        SD_LOG(Error) << "ServiceDiscovery failed to start: \"" << address.toString()
                      << "\" is not the IPv6 address of a unit.";
        return false;
    }
    return m_sdHub->start(address);
}

bool ServiceDiscovery::shutdown()
{
    if (isRefused())
        return false;
    if (m_sdHub->isRunning())
        m_sdHub->stop();
    return true;
}

bool ServiceDiscovery::running() const
{
    return m_isRunning();
}

bool ServiceDiscovery::addService(const NuboServiceDescription& description)
{
    if (isRefused())
        return false;
    return answered("add", [&] {
        SDService::Ptr service = new SDService(description);
        return m_sdHub->addService(service);
    });
}

bool ServiceDiscovery::findService(const NuboServiceDescription& description)
{
    if (isRefused())
        return false;
    return answered("find", [&] {
        // Any instance, any version: receivers skip entries with the reserved instance ID 0.
        SDService::Ptr service = new SDService(description.getName());
        service->setInstanceId(EntryValues::InstanceID_Any);
        service->setMajorVersion(EntryValues::MajorVersion_Any);
        service->setMinorVersion(EntryValues::MinorVersion_Any);
        return m_sdHub->findService(service);
    });
}

bool ServiceDiscovery::removeService(const std::string& localUuid)
{
    if (isRefused())
        return false;
    return answered("remove", [&] { return m_sdHub->removeService(localUuid); });
}

std::vector<ServiceStatus> ServiceDiscovery::getServices() const
{
    if (isRefused())
        return {};
    return m_sdHub->getServices();
}

/// Whether the call must be refused: because the calling thread is delivering an event or writing a log line
/// for an engine and would wait for itself, or because another process created the engine.
bool ServiceDiscovery::isRefused() const
{
    if (!m_sdHub->isOfThisProcess())
        return true;  // logs nothing: threads that do not exist in this process may hold the log's locks
    if (!EngineFrame::isOnThisThread())
        return false;
    thread_local bool isRefusing = false;
    if (!isRefusing) {  // ends the recursion when a log channel calls this for each line
        isRefusing = true;
        SD_LOG(Error) << "ServiceDiscovery - call from within ServiceListChanged is not possible.";
        isRefusing = false;
    }
    return true;
}

}  // namespace Nubo::ServiceDiscovery
