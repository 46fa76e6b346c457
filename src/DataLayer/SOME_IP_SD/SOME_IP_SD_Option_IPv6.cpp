#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

namespace Nubo::ServiceDiscovery {

std::string SOME_IP_SD_Option_IPv6::toByteStream(const Poco::Net::IPAddress& address)
{
    if (address.family() != Poco::Net::IPAddress::IPv6)
        return {};
    return std::string(static_cast<const char*>(address.addr()), IPv6Family::addressLength);
}

}  // namespace Nubo::ServiceDiscovery
