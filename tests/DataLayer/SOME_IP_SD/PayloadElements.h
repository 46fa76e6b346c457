#pragma once

#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"

/// Elements of payloads as objects.
namespace Nubo::ServiceDiscovery::Testing {

inline SOME_IP_SD_Entry::CommonFields fieldsOf(EntryType::Type_t type)
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = type;
    fields.serviceID = 0x1234;
    fields.instanceID = 1;
    fields.majorVersion = 1;
    fields.ttl = 3;
    return fields;
}

inline SOME_IP_SD_Entry::Ptr serviceEntry(EntryType::Type_t type)
{
    return new SOME_IP_SD_Entry_Service(fieldsOf(type), 0);
}

inline SOME_IP_SD_Entry::Ptr eventgroupEntry(EntryType::Type_t type)
{
    return new SOME_IP_SD_Entry_Eventgroup(fieldsOf(type), true, 5, 7);
}

inline SOME_IP_SD_Option::Ptr ipv4Option(OptionType::Type_t type)
{
    return new SOME_IP_SD_Option_IPv4(type, "10.1.2.3", 80, OptionL4Protocol::TCP);
}

inline SOME_IP_SD_Option::Ptr ipv6Option(OptionType::Type_t type)
{
    return new SOME_IP_SD_Option_IPv6(type, "fd00::1", 80, OptionL4Protocol::UDP);
}

}  // namespace Nubo::ServiceDiscovery::Testing
