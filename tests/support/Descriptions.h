#pragma once

#include "DataLayer/SDService.h"

#include <string>

namespace Nubo::ServiceDiscovery::Testing {

/// A description that can be added: TCP, version 1.0.0 unless told otherwise.
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
inline SDService::Ptr makeService(const std::string& name, const std::string& address = "fd00::1",
                                  unsigned short port = 8080, const std::string& uuid = "")
{
    return new SDService(describe(name, address, port, uuid));
}

}  // namespace Nubo::ServiceDiscovery::Testing
