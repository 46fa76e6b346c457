#pragma once

#include <Poco/Net/MulticastSocket.h>

#include <string>
#include <vector>

namespace NuboSd {

/// Joins the discovery group on interfaces, so that network cards and switches pass its datagrams on. Binds
/// no port.
class Memberships
{
public:
    /// Joins on those interfaces; without any, on all but loopback. Skips interfaces that cannot join.
    explicit Memberships(const std::vector<std::string>& interfaces);

private:
    Poco::Net::MulticastSocket m_socket{Poco::Net::SocketAddress::IPv6};
};

}  // namespace NuboSd
