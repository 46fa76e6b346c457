#pragma once

#include <string>
#include <vector>

#include <DataLayer/SDService.h>

namespace NuboSd {

/// A service to be announced, as the user gives it.
struct ServiceEntry
{
    std::string where;  ///< opens an error about it: "services.json: service 2: "
    std::string name;
    std::vector<std::string> versions;
    std::vector<std::string> categories;
    std::string address;  ///< empty: the unit's
    int port = 0;
    std::string protocol = "tcp";
    std::string uuid;  ///< empty: one is made up
    std::string uri;   ///< empty: made from name, address and port

    /// The description to be announced. Throws UsageError for what no other unit could use.
    Nubo::ServiceDiscovery::NuboServiceDescription describe(const Poco::Net::IPAddress& unitAddress) const;
};

/// Reads a list of services: a JSON array of objects with the keys of a "discovered" event. Throws
/// UsageError.
std::vector<ServiceEntry> readServicesFile(const std::string& path);

}  // namespace NuboSd
