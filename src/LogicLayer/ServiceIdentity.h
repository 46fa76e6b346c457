#pragma once

#include "DataLayer/SDService.h"

#include <Poco/Nullable.h>

#include <cstdint>
#include <string>

namespace Nubo::ServiceDiscovery {

/// A partial identity by which records are looked up. A field that is not set is a wildcard.
struct ServiceIdentity
{
    /// Every field its wildcard.
    ServiceIdentity();

    /// Names the record's service: its service ID and its name, everything else wildcard.
    explicit ServiceIdentity(const SDService& service);

    /// The instance that `service` stands for, among records of that type: its name and its endpoint
    /// (address text, port, protocol), whatever its service ID, versions and instance ID.
    static ServiceIdentity ofInstance(const SDService& service, SDService::Type::Type_t type);

    /// Whether every field that is set agrees with the record.
    bool matches(const SDService& service) const;

    /// Whether it names one instance: a name and an endpoint.
    bool isOfInstance() const
    {
        return !name.isNull() && !ip.isNull() && !port.isNull() && !l4proto.isNull();
    }

    SDService::Type::Type_t type = SDService::Type::ANY;
    /// `ServiceID_Non_SOMEIP_SD` means: match by name. Without a name nothing matches then.
    std::uint16_t serviceID = SOME_IP_SD_Types::EntryValues::ServiceID_Any;
    std::uint16_t instanceID = SOME_IP_SD_Types::EntryValues::InstanceID_Any;
    std::uint8_t majorVersion = SOME_IP_SD_Types::EntryValues::MajorVersion_Any;
    std::uint32_t minorVersion = SOME_IP_SD_Types::EntryValues::MinorVersion_Any;
    Poco::Nullable<std::string> name;
    Poco::Nullable<std::string> ip;  ///< as Poco::Net::IPAddress::toString gives it
    Poco::Nullable<unsigned short> port;
    Poco::Nullable<OptionL4Protocol::L4Protocol_t> l4proto;
};

}  // namespace Nubo::ServiceDiscovery
