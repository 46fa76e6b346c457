#pragma once

#include <string_view>

namespace Nubo::ServiceDiscovery {

/// Returns the text of an address without its "%scope". Valid as long as `ip`.
inline std::string_view withoutScope(std::string_view ip)
{
    return ip.substr(0, ip.find('%'));
}

}  // namespace Nubo::ServiceDiscovery
