#include "LogicLayer/Records.h"

#include "DataLayer/Log.h"

namespace Nubo::ServiceDiscovery {

void append(const std::vector<WorkloadEntry*>& entries, ServicesContainer& services)
{
    for (const WorkloadEntry* entry : entries)
        services.push_back(*entry);
}

bool reportUnexpected(const char* handler, const char* workload, const ServicesContainer& unexpected)
{
    if (unexpected.empty())
        return false;
    SD_LOG(Error) << "SDStateMachine::" << handler << " found " << unexpected.size() << " " << workload
                  << " Services in unexpected State x Type!";
    SD_LOG(Trace) << "SDStateMachine::" << handler << ServicesContainer_TypeAndStatePrinter{unexpected};
    return true;
}

bool reportDuplicates(const char* handler, const std::vector<WorkloadEntry*>& duplicates)
{
    SD_LOG(Error) << "SDStateMachine::" << handler << " found " << duplicates.size()
                  << " duplicate Service(s)!";
    ServicesContainer services;
    append(duplicates, services);
    SD_LOG(Trace) << "SDStateMachine::" << handler << ServicesContainer_TypeAndStatePrinter{services};
    return false;
}

}  // namespace Nubo::ServiceDiscovery
