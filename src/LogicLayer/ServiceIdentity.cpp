#include "LogicLayer/ServiceIdentity.h"

namespace Nubo::ServiceDiscovery {

ServiceIdentity::ServiceIdentity() = default;

ServiceIdentity::ServiceIdentity(const SDService& service)
    : serviceID(service.getServiceId())
    , name(service.getNuboDescription().getName())
{}

ServiceIdentity ServiceIdentity::ofInstance(const SDService& service, SDService::Type::Type_t type)
{
    const NuboServiceDescription& description = service.getNuboDescription();
    ServiceIdentity identity(service);
    identity.type = type;
    identity.serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Any;
    identity.ip = description.getIpAddressString();
    identity.port = description.getPort();
    identity.l4proto = description.getL4Proto();
    return identity;
}

}  // namespace Nubo::ServiceDiscovery
