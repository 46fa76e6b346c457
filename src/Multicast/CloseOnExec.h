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

}  // namespace Nubo::ServiceDiscovery::Multicast
