#pragma once

#include "DataLayer/SDService.h"
#include "DataLayer/ServiceEvents.h"

#include <Poco/Net/IPAddress.h>

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Interface of the engine behind the facade.
class Engine
{
public:
    Engine() = default;
    virtual ~Engine() = default;

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// Starts the engine on the unit's address. Returns true when it runs, including when it already ran.
    /// Logs the reason and returns false when the receiver cannot be bound, when a subscriber still blocks an
    /// earlier run, or when the system is short of memory or threads. A failed start leaves nothing running.
    /// Never throws.
    virtual bool start(const Poco::Net::IPAddress& localAddress) = 0;
    /// Stops the engine, even if single steps fail. Never throws.
    virtual void stop() = 0;
    /// Variant for a thread that is delivering an event or writing a log line and must not wait for itself:
    /// withdraws the services but leaves the engine's threads running.
    virtual void stopFromWithin() noexcept = 0;
    virtual bool isRunning() const = 0;
    virtual bool isStopping() const = 0;

    /// Whether the calling thread works for this engine or holds one of its locks.
    virtual bool isOnThisThread() const = 0;
    /// Whether this process created the engine; false in a forked child.
    virtual bool isOfThisProcess() const = 0;

    /// Requests of the registry. They return false, after logging an error, for a record that cannot be sent.
    virtual bool addService(SDService::Ptr& service) = 0;
    virtual bool findService(SDService::Ptr& service) = 0;
    virtual bool removeService(const std::string& localUuid) = 0;
    virtual std::vector<ServiceStatus> getServices() const = 0;
};

}  // namespace Nubo::ServiceDiscovery
