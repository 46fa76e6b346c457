#include "LogicLayer/ServiceIdentity.h"

namespace Nubo::ServiceDiscovery {

using SOME_IP_SD_Types::EntryValues;

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
    identity.serviceID = EntryValues::ServiceID_Any;
    identity.ip = description.getIpAddressString();
    identity.port = description.getPort();
    identity.l4proto = description.getL4Proto();
    return identity;
}

bool ServiceIdentity::matches(const SDService& service) const
{
    const NuboServiceDescription& description = service.getNuboDescription();
    if (type != SDService::Type::ANY && type != service.getType())
        return false;
    if (serviceID == EntryValues::ServiceID_Non_SOMEIP_SD) {
        if (name.isNull() || name.value() != description.getName())
            return false;
    }
    else if (serviceID != EntryValues::ServiceID_Any && serviceID != service.getServiceId()) {
        return false;
    }
    if (instanceID != EntryValues::InstanceID_Any && instanceID != service.getInstanceId())
        return false;
    if (majorVersion != EntryValues::MajorVersion_Any && majorVersion != service.getMajorVersion())
        return false;
    if (minorVersion != EntryValues::MinorVersion_Any && minorVersion != service.getMinorVersion())
        return false;
    if (!name.isNull() && name.value() != description.getName())
        return false;
    if (!port.isNull() && port.value() != description.getPort())
        return false;
    if (!l4proto.isNull() && l4proto.value() != description.getL4Proto())
        return false;
    // Last, because it has to format the address.
    return ip.isNull() || ip.value() == description.getIpAddressString();
}

}  // namespace Nubo::ServiceDiscovery
