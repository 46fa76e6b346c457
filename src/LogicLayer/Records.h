#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/ServicesContainer.h"

#include <ostream>
#include <string>
#include <vector>

/// Helpers with which the state machine examines records and reports them.
namespace Nubo::ServiceDiscovery {

inline const std::string& nameOf(const SDService::Ptr& service)
{
    return service->getNuboDescription().getName();
}

inline bool isOnce(const SDService::Ptr& service)
{
    return service->getState() == SDService::State::ONCE;
}

inline bool isWanted(const SDService::Ptr& service)
{
    return service->getType() == SDService::Type::WANTED;
}

inline bool isShuttingDown(const SDService::Ptr& service)
{
    return service->getState() == SDService::State::SHUTDOWN_PHASE;
}

inline void setTypeAndState(SDService::Ptr& service, SDService::Type::Type_t type,
                            SDService::State::State_t state)
{
    service->setType(type);
    service->setState(state);
}

/// Streams a record as "<uri> (<name> v<major>.<minor>.X)".
struct ServiceLabel
{
    const SDService& service;

    friend std::ostream& operator<<(std::ostream& stream, ServiceLabel label)
    {
        const NuboServiceDescription& description = label.service.getNuboDescription();
        return stream << description.getUri() << " (" << description.getName() << " v"
                      << label.service.getMajorVersion_AsUnsigned() << "." << label.service.getMinorVersion()
                      << ".X)";
    }
};

/// Appends the records of the entries.
void append(const std::vector<WorkloadEntry*>& entries, ServicesContainer& services);

/// Logs records that a handler found in a workload where they do not belong. Returns whether there are any.
bool reportUnexpected(const char* handler, const char* workload, const ServicesContainer& unexpected);

/// Logs several records of one instance, where only one is allowed. Returns false, the handler's result.
bool reportDuplicates(const char* handler, const std::vector<WorkloadEntry*>& duplicates);

}  // namespace Nubo::ServiceDiscovery
