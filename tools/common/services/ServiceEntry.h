#pragma once

#include <string>
#include <vector>

#include <DataLayer/SDService.h>

namespace NuboSd {

constexpr int highestPort = 65535;

/// A service to announce, as the user describes it. ServiceJson.h lists its keys.
struct ServiceEntry
{
    std::string where;  ///< prefix of messages about it: "services.json:3:5: service 2: "
    std::string name;
    std::vector<std::string> versions;
    std::vector<std::string> categories;
    std::string address;  ///< empty: the unit's
    int port = 0;
    std::string protocol = "tcp";
    std::string uuid;  ///< empty: a random one
    std::string uri;   ///< empty: made from name, address and port

    /// The entry for a description, without `where`.
    static ServiceEntry of(const Nubo::ServiceDiscovery::NuboServiceDescription& description);

    /// The description to announce. The service must have been checked. Throws UsageError for an invalid
    /// address.
    Nubo::ServiceDiscovery::NuboServiceDescription describe(const Poco::Net::IPAddress& unitAddress) const;
};

}  // namespace NuboSd
