#pragma once

#include "support/Namespace.h"
#include "support/Waiting.h"
#include "support/Wire.h"

#include <Poco/Net/MulticastSocket.h>
#include <Poco/Net/NetworkInterface.h>
#include <Poco/Net/SocketAddress.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <string>
#include <system_error>
#include <vector>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

constexpr auto discoveryGroup = "ff14::4:0";
constexpr std::uint16_t discoveryPort = 30491;

/// Hears every datagram to the discovery port that arrives on an interface. It joins no group and binds no
/// port.
class Listener
{
public:
    struct Datagram
    {
        std::string bytes;
        std::string source;
        std::uint16_t sourcePort;
        std::string destination;
        unsigned hopLimit;
    };

    Listener(const Namespace& network, const std::string& interface)
    {
        const InNamespace inside(network);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_IPV6);
        address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
        m_socket = ::socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (address.sll_ifindex == 0 ||
            ::bind(m_socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            throw std::system_error(errno, std::generic_category(), "listen on " + interface);
    }
    ~Listener() { ::close(m_socket); }

    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// All datagrams heard so far, in order.
    const std::vector<Datagram>& datagrams()
    {
        std::array<char, 65536> frame;
        for (;;) {
            const ssize_t size = ::recv(m_socket, frame.data(), frame.size(), 0);
            if (size < 0)
                return m_heard;
            take(frame.data(), static_cast<std::size_t>(size));
        }
    }

    /// The bytes of each datagram, as hexadecimal text.
    std::vector<std::string> bytes()
    {
        std::vector<std::string> result;
        for (const Datagram& datagram : datagrams())
            result.push_back(toHex(datagram.bytes));
        return result;
    }

    /// Waits until it has heard that many datagrams in total.
    bool hears(std::size_t count)
    {
        return eventually([&] { return datagrams().size() >= count; });
    }

    /// Forgets all datagrams heard so far.
    void clear()
    {
        datagrams();
        m_heard.clear();
    }

private:
    static std::string textOf(const in6_addr& address)
    {
        std::array<char, INET6_ADDRSTRLEN> text{};
        return ::inet_ntop(AF_INET6, &address, text.data(), text.size());
    }

    void take(const char* frame, std::size_t size)
    {
        ip6_hdr ip{};
        udphdr udp{};
        constexpr std::size_t headers = sizeof ip + sizeof udp;
        if (size < headers)
            return;
        std::memcpy(&ip, frame, sizeof ip);
        std::memcpy(&udp, frame + sizeof ip, sizeof udp);
        if (ip.ip6_nxt == IPPROTO_UDP && ntohs(udp.uh_dport) == discoveryPort)
            m_heard.push_back({std::string(frame + headers, size - headers), textOf(ip.ip6_src),
                               ntohs(udp.uh_sport), textOf(ip.ip6_dst), ip.ip6_hlim});
    }

    int m_socket;
    std::vector<Datagram> m_heard;
};

/// Sends datagrams to the discovery group on an interface, as another unit would.
class Speaker
{
public:
    /// `source` is an address of the interface.
    Speaker(const Namespace& network, const std::string& interface, const std::string& source)
        : m_socket(open(network, interface, source))
    {}

    void send(const std::string& bytes)
    {
        m_socket.sendTo(bytes.data(), static_cast<int>(bytes.size()), m_group);
    }

    /// The source address of its datagrams.
    Poco::Net::SocketAddress address() const { return m_socket.address(); }

private:
    static Poco::Net::MulticastSocket open(const Namespace& network, const std::string& interface,
                                           const std::string& source)
    {
        const InNamespace inside(network);
        Poco::Net::MulticastSocket socket(Poco::Net::SocketAddress(source, 0), false);
        socket.setInterface(Poco::Net::NetworkInterface::forName(interface, true));
        return socket;
    }

    const Poco::Net::SocketAddress m_group{discoveryGroup, discoveryPort};
    Poco::Net::MulticastSocket m_socket;
};

}  // namespace Nubo::ServiceDiscovery::Testing
