#pragma once

#include <string>
#include <vector>

#include <DataLayer/SDService.h>

namespace NuboSd {

constexpr int highestPort = 65535;

/// A service to be announced, as the user gives it. ServiceJson.h has its keys.
struct ServiceEntry
{
    std::string where;  ///< opens an error about it: "services.json:3:5: service 2: "
    std::string name;
    std::vector<std::string> versions;
    std::vector<std::string> categories;
    std::string address;  ///< empty: the unit's
    int port = 0;
    std::string protocol = "tcp";
    std::string uuid;  ///< empty: one is made up
    std::string uri;   ///< empty: made from name, address and port

    /// What a description says, as an entry without a place.
    static ServiceEntry of(const Nubo::ServiceDiscovery::NuboServiceDescription& description);

    /// The description to be announced, of a service that was checked. Throws UsageError for an address
    /// that is none.
    Nubo::ServiceDiscovery::NuboServiceDescription describe(const Poco::Net::IPAddress& unitAddress) const;
};

}  // namespace NuboSd
