#pragma once

#include "DataLayer/SDService.h"
#include "LogicLayer/RecordIndex.h"
#include "LogicLayer/ServicesContainer.h"

#include <ostream>
#include <string>
#include <vector>

/// What the rules of the state machine ask of records, and how they report them.
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

/// Appends the entries' records.
void append(const std::vector<WorkloadEntry*>& entries, ServicesContainer& services);

/// Logs records that a handler found where they have no business; true if there are any.
bool reportUnexpected(const char* handler, const char* workload, const ServicesContainer& unexpected);

/// Logs records of one instance of which there may be only one; returns false.
bool reportDuplicates(const char* handler, const std::vector<WorkloadEntry*>& duplicates);

}  // namespace Nubo::ServiceDiscovery
