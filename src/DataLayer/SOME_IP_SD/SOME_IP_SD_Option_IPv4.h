#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint.h"

namespace Nubo::ServiceDiscovery {

/// IPv4 endpoint, multicast or SD endpoint option.
class SOME_IP_SD_Option_IPv4 : public EndpointOption<IPv4Family>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Option_IPv4>;
    using EndpointOption::EndpointOption;
};

}  // namespace Nubo::ServiceDiscovery
