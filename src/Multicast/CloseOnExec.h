#pragma once

#include <Poco/Net/Socket.h>
#include <Poco/Net/SocketImpl.h>

#include <fcntl.h>

namespace Nubo::ServiceDiscovery::Multicast {

/// Keeps the socket from the programs that the process starts: one that lives on would hold the port.
inline void closeOnExec(const Poco::Net::Socket& socket)
{
    ::fcntl(socket.impl()->sockfd(), F_SETFD, FD_CLOEXEC);
}

/// The same for the descriptors with which a reactor watches the socket, and does not give out. They are
/// found in /proc; without that they stay as they are.
void closeWatchersOnExec(const Poco::Net::Socket& socket);

}  // namespace Nubo::ServiceDiscovery::Multicast
