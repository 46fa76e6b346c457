#pragma once

#include "DataLayer/SDService.h"

#include <Poco/Clock.h>

#include <iosfwd>
#include <map>
#include <vector>

namespace Nubo::ServiceDiscovery {

/// Records by due time; those with equal times in the order of insertion.
using AperiodicServicesContainer = std::multimap<Poco::Clock, SDService::Ptr>;
/// Records in the order of insertion.
using ServicesContainer = std::vector<SDService::Ptr>;

/// Stream a container's records for the log: their names, or their names with type and state.
struct ServicesContainer_Printer
{
    const ServicesContainer& services;
};
std::ostream& operator<<(std::ostream& stream, const ServicesContainer_Printer& printer);

struct ServicesContainer_TypeAndStatePrinter
{
    const ServicesContainer& services;
};
std::ostream& operator<<(std::ostream& stream, const ServicesContainer_TypeAndStatePrinter& printer);

}  // namespace Nubo::ServiceDiscovery
