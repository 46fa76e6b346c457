#pragma once

#include "DataLayer/SDService.h"

#include <Poco/Nullable.h>

#include <cstdint>
#include <string>

namespace Nubo::ServiceDiscovery {

/// A partial identity for looking up records. Fields that are not set are wildcards.
struct ServiceIdentity
{
    /// Matches everything.
    ServiceIdentity();

    /// Identifies the record's service by service ID and name. All other fields are wildcards.
    explicit ServiceIdentity(const SDService& service);

    /// Identifies the instance of `service` among the records of that type by name and endpoint (address
    /// text, port, protocol). Service ID, versions and instance ID are wildcards.
    static ServiceIdentity ofInstance(const SDService& service, SDService::Type::Type_t type);

    /// Whether the record agrees with every field that is set.
    bool matches(const SDService& service) const;

    /// Whether name and endpoint are set.
    bool isOfInstance() const
    {
        return !name.isNull() && !ip.isNull() && !port.isNull() && !l4proto.isNull();
    }

    SDService::Type::Type_t type = SDService::Type::ANY;
    /// `ServiceID_Non_SOMEIP_SD` matches by name only; nothing matches if no name is set.
    std::uint16_t serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Any;
    std::uint16_t instanceID = SOME_IP_SD_Types::EntryValues::InstanceID_Any;
    std::uint8_t majorVersion = SOME_IP_SD_Types::EntryValues::MajorVersion_Any;
    std::uint32_t minorVersion = SOME_IP_SD_Types::EntryValues::MinorVersion_Any;
    Poco::Nullable<std::string> name;
    Poco::Nullable<std::string> ip;  ///< in the format of Poco::Net::IPAddress::toString()
    Poco::Nullable<unsigned short> port;
    Poco::Nullable<OptionL4Protocol::L4Protocol_t> l4proto;
};

}  // namespace Nubo::ServiceDiscovery
