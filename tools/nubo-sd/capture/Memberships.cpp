#include "capture/Memberships.h"

#include "unit/DiscoveryGroup.h"

#include <Poco/Exception.h>
#include <Poco/Net/NetworkInterface.h>

#include <algorithm>

namespace NuboSd {

Memberships::Memberships(const std::vector<std::string>& interfaces)
{
    const Poco::Net::IPAddress group(discoveryGroup);
    for (const auto& [index, interface] : Poco::Net::NetworkInterface::map(false, true)) {
        const bool isWanted = interfaces.empty()
                                  ? !interface.isLoopback()
                                  : std::count(interfaces.begin(), interfaces.end(), interface.name()) != 0;
        try {
            if (isWanted)
                m_socket.joinGroup(group, interface);
        }
        catch (const Poco::Exception&) {
            // Its datagrams still show up if another process has joined.
        }
    }
}

}  // namespace NuboSd
