#pragma once

#include "DataLayer/SDService.h"
#include "DataLayer/ServiceEvents.h"

#include <Poco/Net/IPAddress.h>

#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// What the facade asks of the engine behind it.
class Engine
{
public:
    Engine() = default;
    virtual ~Engine() = default;

    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    /// True when the engine runs on the unit's address, now or already. False, with the reason in the log,
    /// when the receiver cannot be bound, when a subscriber still holds up what runs or ran, or when memory
    /// or threads are short; then nothing runs. Never throws.
    virtual bool start(const Poco::Net::IPAddress& localAddress) = 0;
    /// Whatever fails on the way, the engine has stopped when it returns. Never throws.
    virtual void stop() = 0;
    /// The same for a thread that delivers an event, or writes a line of the log, and must not wait for
    /// itself: withdraws the services. The threads stay.
    virtual void stopFromWithin() noexcept = 0;
    virtual bool isRunning() const = 0;
    virtual bool isStopping() const = 0;

    /// Whether the calling thread works for this engine, or holds a lock of it.
    virtual bool isOnThisThread() const = 0;
    /// Whether the engine was made by this process, not by one that was forked from.
    virtual bool isOfThisProcess() const = 0;

    /// Requests of the registry. False, after an error line, for a record that cannot be put on the wire.
    virtual bool addService(SDService::Ptr& service) = 0;
    virtual bool findService(SDService::Ptr& service) = 0;
    virtual bool removeService(const std::string& localUuid) = 0;
    virtual std::vector<ServiceStatus> getServices() const = 0;
};

}  // namespace Nubo::ServiceDiscovery
