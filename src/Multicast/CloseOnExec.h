#pragma once

#include <Poco/Net/MulticastSocket.h>

namespace Nubo::ServiceDiscovery::Multicast {

/// Opens an IPv6 UDP socket that child programs do not inherit, because one that outlives this process would
/// keep the port. Sets SOCK_CLOEXEC on creation, so a program started by another thread at the same moment
/// does not get it either. Throws Poco::Net::NetException.
Poco::Net::MulticastSocket openSocket();

/// Sets FD_CLOEXEC on the descriptors with which a reactor watches the socket. The reactor does not expose
/// them, so they are looked up in /proc; without /proc they remain inheritable.
void closeWatchersOnExec(const Poco::Net::MulticastSocket& socket);

}  // namespace Nubo::ServiceDiscovery::Multicast
