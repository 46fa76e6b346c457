#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Endpoint.h"

namespace Nubo::ServiceDiscovery {

/// IPv6 endpoint, multicast or SD endpoint option. Scopes are not sent.
class SOME_IP_SD_Option_IPv6 : public EndpointOption<IPv6Family>
{
public:
    using Ptr = Poco::SharedPtr<SOME_IP_SD_Option_IPv6>;
    using EndpointOption::EndpointOption;

    /// The 16 bytes of an IPv6 address in network order; empty for an address of another family.
    static std::string toByteStream(const Poco::Net::IPAddress& address);

    /// Why an option cannot have that address or that protocol; empty if it can.
    static std::string faultOf(const Poco::Net::IPAddress& address);
    static std::string faultOf(OptionL4Protocol::L4Protocol_t protocol);
};

}  // namespace Nubo::ServiceDiscovery
