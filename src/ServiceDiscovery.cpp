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

/// Keeps the engine for ever: its threads still use it, or it shares its sockets with another process.
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
        m_sdHub->stopFromWithin();  // exit() was called on this thread, which must not wait for itself
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
        // Any instance, any version: receivers pass over an entry with the reserved instance ID 0.
        SDService::Ptr service = new SDService(description.getName());
        service->setInstanceId(EntryValues::InstanceID_Any);
        service->setMajorVersion(EntryValues::MajorVersion_Any);
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

/// Whether the call has to be refused: the calling thread is in an event of an engine, or writes a line of
/// the log for one, and could only wait for itself; or the process is not the one that made the engine.
bool ServiceDiscovery::isRefused() const
{
    if (!m_sdHub->isOfThisProcess())
        return true;  // without a line in the log: its locks may be held by threads that were not forked
    if (!EngineFrame::isOnThisThread())
        return false;
    thread_local bool isRefusing = false;
    if (!isRefusing) {  // a log channel that calls for each line is not called for this one again
        isRefusing = true;
        SD_LOG(Error) << "ServiceDiscovery - call from within ServiceListChanged is not possible.";
        isRefusing = false;
    }
    return true;
}

}  // namespace Nubo::ServiceDiscovery
