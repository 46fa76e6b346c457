#pragma once

#include <Poco/Net/MulticastSocket.h>

namespace Nubo::ServiceDiscovery::Multicast {

/// A socket of IPv6 that the programs do not get which the process starts, be it at the same moment: one that
/// lives on would hold the port.
Poco::Net::MulticastSocket openSocket();

/// Keeps from them the descriptors with which a reactor watches the socket, and does not give out. They are
/// found in /proc; without that they stay as they are.
void closeWatchersOnExec(const Poco::Net::MulticastSocket& socket);

}  // namespace Nubo::ServiceDiscovery::Multicast
