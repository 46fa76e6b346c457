#pragma once

#include "DataLayer/SDService.h"

#include <Poco/Net/IPAddress.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace Nubo::ServiceDiscovery::Testing {

/// The sender address of the unit with that number; 0 means an unknown sender.
inline SDService::SenderAddress unit(std::uint32_t number)
{
    SDService::SenderAddress address{};
    if (number == 0)
        return address;
    address[0] = 0xfd;
    for (std::size_t i = 0; i < 4; ++i)
        address[address.size() - 1 - i] = static_cast<std::uint8_t>(number >> 8 * i);
    return address;
}

/// A record as the hub makes it from an offer, made faster.
inline SDService::Ptr makeOffer(const std::string& name, unsigned short port = 8080, std::uint32_t sender = 1,
                                unsigned int ttl = 120)
{
    static const Poco::Net::IPAddress address("fd00::2");
    NuboServiceDescription description;
    description.setName(name);
    description.addVersion("1.0.0");
    description.setIpAddress(address);
    description.setPort(port);
    SDService::Ptr record =
        new SDService(description, ttl, SOME_IP_SD_Types::EntryValues::ServiceID_Non_SOMEIP_SD, 0, 1, 0,
                      ConfigurationPairs(), SDService::Type::NONE);
    record->setSender(unit(sender));
    return record;
}

/// The same in the form in which the workload holds it.
inline SDService::Ptr makeDiscovered(const std::string& name, unsigned short port = 8080,
                                     std::uint32_t sender = 1, unsigned short instanceID = 1)
{
    SDService::Ptr record = makeOffer(name, port, sender);
    record->setType(SDService::Type::DISCOVERED);
    record->setState(SDService::State::MAIN_PHASE);
    record->setInstanceId(instanceID);
    return record;
}

/// A record whose texts have that many bytes.
inline SDService::Ptr withText(SDService::Ptr record, std::size_t size)
{
    NuboServiceDescription description = record->getNuboDescription();
    const std::size_t rest = size - description.getTextSize() - sizeof(std::string);
    description.addCategory(std::string(rest, 'c'));
    record->setNuboDescription(description);
    return record;
}

}  // namespace Nubo::ServiceDiscovery::Testing
