#pragma once

#include "support/Listener.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Wire.h"

#include <Poco/Net/SocketAddress.h>

#include <cerrno>
#include <string>
#include <system_error>

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

/// A UDP datagram with that payload to the discovery port, with a wrong checksum.
inline std::string corrupted(const std::string& payload)
{
    return Packets::bigEndian16(9) + Packets::bigEndian16(discoveryPort) +
           Packets::bigEndian16(8 + payload.size()) + "0b ad"_bytes + payload;
}

/// Sends datagrams that an ordinary socket cannot send: the caller makes the transport header.
class RawSpeaker
{
public:
    /// `source` is an address of the interface.
    RawSpeaker(const Namespace& network, const std::string& interface, const std::string& source,
               int protocol)
    {
        const InNamespace inside(network);
        m_socket = ::socket(AF_INET6, SOCK_RAW | SOCK_CLOEXEC, protocol);
        const auto index = static_cast<int>(::if_nametoindex(interface.c_str()));
        const Poco::Net::SocketAddress from(source, 0);
        if (::setsockopt(m_socket, IPPROTO_IPV6, IPV6_MULTICAST_IF, &index, sizeof index) != 0 ||
            ::bind(m_socket, from.addr(), from.length()) != 0)
            throw std::system_error(errno, std::generic_category(), "speak on " + interface);
    }
    ~RawSpeaker() { ::close(m_socket); }

    RawSpeaker(const RawSpeaker&) = delete;
    RawSpeaker& operator=(const RawSpeaker&) = delete;

    void send(const std::string& bytes, const std::string& destination)
    {
        const Poco::Net::SocketAddress to(destination, 0);
        if (::sendto(m_socket, bytes.data(), bytes.size(), 0, to.addr(), to.length()) < 0)
            throw std::system_error(errno, std::generic_category(), "send to " + destination);
    }

private:
    int m_socket;
};

}  // namespace Nubo::ServiceDiscovery::Testing
