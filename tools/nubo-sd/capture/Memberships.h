#pragma once

#include <Poco/Net/MulticastSocket.h>

#include <string>
#include <vector>

namespace NuboSd {

/// Membership in the discovery group on interfaces, so that network cards and switches pass its datagrams on.
/// No port is bound.
class Memberships
{
public:
    /// On those interfaces, or on all that can; what cannot is left out.
    explicit Memberships(const std::vector<std::string>& interfaces);

private:
    Poco::Net::MulticastSocket m_socket{Poco::Net::SocketAddress::IPv6};
};

}  // namespace NuboSd
