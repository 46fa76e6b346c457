#pragma once

#include "DataLayer/SDService.h"

#include <sstream>
#include <string>
#include <vector>

namespace Nubo::ServiceDiscovery::Testing {

/// A description that can be added: TCP, version 1.0.0 by default.
inline NuboServiceDescription describe(const std::string& name, const std::string& address = "fd00::1",
                                       unsigned short port = 8080, const std::string& uuid = "",
                                       const std::string& version = "1.0.0")
{
    NuboServiceDescription description;
    description.setName(name);
    description.addVersion(version);
    description.setIpAddress(Poco::Net::IPAddress(address));
    description.setPort(port);
    description.setLocalUuid(uuid);
    description.setUri(description.generateUri());
    return description;
}

/// A record made from such a description.
inline SDService::Ptr makeService(const NuboServiceDescription& description)
{
    return new SDService(description);
}

inline SDService::Ptr makeService(const std::string& name, const std::string& address = "fd00::1",
                                  unsigned short port = 8080, const std::string& uuid = "")
{
    return makeService(describe(name, address, port, uuid));
}

/// The same in a role and a phase, as instance 1.
inline SDService::Ptr makeRecord(SDService::Type::Type_t type, SDService::State::State_t state,
                                 const std::string& name = "Media", const std::string& address = "fd00::1",
                                 unsigned short port = 8080, const std::string& uuid = "")
{
    SDService::Ptr record = makeService(name, address, port, uuid);
    record->setType(type);
    record->setState(state);
    record->setInstanceId(1);
    return record;
}

/// A record in a few words: "Media ANNOUNCED MAIN_PHASE #1".
inline std::string summary(const SDService::Ptr& record)
{
    if (record.isNull())
        return "nullptr";
    std::ostringstream text;
    text << record->getNuboDescription().getName() << " " << record->getType() << " " << record->getState()
         << " #" << record->getInstanceId();
    return text.str();
}

inline std::vector<std::string> summaries(const std::vector<SDService::Ptr>& records)
{
    std::vector<std::string> result;
    result.reserve(records.size());
    for (const SDService::Ptr& record : records)
        result.push_back(summary(record));
    return result;
}

}  // namespace Nubo::ServiceDiscovery::Testing
