#pragma once

#include "DataLayer/SOME_IP_SD/ImplementedBy.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option.h"

namespace Nubo::ServiceDiscovery {

class SOME_IP_SD_Option_LoadBalancing_Pimpl;

/// Load-balancing option. Fields behind the four bytes of every option: priority (2) and weight (2).
class SOME_IP_SD_Option_LoadBalancing
    : public ImplementedBy<SOME_IP_SD_Option, SOME_IP_SD_Option_LoadBalancing_Pimpl>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Option_LoadBalancing>;

    /// An option to be filled by reading.
    SOME_IP_SD_Option_LoadBalancing();
    SOME_IP_SD_Option_LoadBalancing(std::uint16_t priority, std::uint16_t weight);

    std::uint16_t getPriority() const;
    std::uint16_t getWeight() const;
};

}  // namespace Nubo::ServiceDiscovery
