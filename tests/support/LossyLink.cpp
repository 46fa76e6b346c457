#include "support/LossyLink.h"

#include "support/Listener.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr std::size_t offloadHeader = 10;  // a struct virtio_net_hdr; the system's header is not for C++
constexpr std::size_t longestFrame = 65536;

template <class Value>
void setOption(int socket, int level, int option, const Value& value)
{
    if (::setsockopt(socket, level, option, &value, sizeof value) != 0)
        throw std::system_error(errno, std::generic_category(), "setsockopt");
}

/// A socket that receives all frames of the interface, and sends there. Each frame is preceded by the header
/// that lists what the sender has left to its network card, such as the checksum, and is passed on with it.
int openSocket(const Namespace& relay, const std::string& interface)
{
    const InNamespace inside(relay);
    const int socket = ::socket(AF_PACKET, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (socket < 0)
        throw std::system_error(errno, std::generic_category(), "packet socket");
    constexpr int on = 1;
    constexpr int receiveBuffer = 4 * 1024 * 1024;  // only the relay may lose datagrams
    setOption(socket, SOL_PACKET, PACKET_VNET_HDR, on);
    setOption(socket, SOL_PACKET, PACKET_IGNORE_OUTGOING, on);
    setOption(socket, SOL_SOCKET, SO_RCVBUFFORCE, receiveBuffer);
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(::if_nametoindex(interface.c_str()));
    if (::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        throw std::system_error(errno, std::generic_category(), "bind to " + interface);
    return socket;
}

/// Connects the side with an interface of the relay and returns the socket there.
int plugIn(const Namespace& side, const std::string& sidesInterface, const Namespace& relay,
           const std::string& interface)
{
    connect(side, sidesInterface, relay, interface);
    relay.setIPv6(interface + "/disable_ipv6", "1");  // so that it sends nothing itself
    return openSocket(relay, interface);
}

bool isDiscovery(const char* frame, std::size_t size)
{
    ether_header ethernet{};
    ip6_hdr ip{};
    udphdr udp{};
    if (size < sizeof ethernet + sizeof ip + sizeof udp)
        return false;
    std::memcpy(&ethernet, frame, sizeof ethernet);
    std::memcpy(&ip, frame + sizeof ethernet, sizeof ip);
    std::memcpy(&udp, frame + sizeof ethernet + sizeof ip, sizeof udp);
    return ntohs(ethernet.ether_type) == ETHERTYPE_IPV6 && ip.ip6_nxt == IPPROTO_UDP &&
           ntohs(udp.uh_dport) == discoveryPort;
}

}  // namespace

LossyLink::End::End(const Namespace& side, const std::string& sidesInterface, const Namespace& relay,
                    const std::string& interface, std::uint32_t seed)
    : socket(plugIn(side, sidesInterface, relay, interface))
    , generator(seed)
{}

LossyLink::End::~End()
{
    ::close(socket);
}

LossyLink::LossyLink(const Namespace& one, const std::string& interfaceOne, const Namespace& other,
                     const std::string& interfaceOther, std::uint32_t seed, OnPassed onPassed)
    : m_relay(one.name() + "-" + interfaceOne + "-" + other.name() + "-" + interfaceOther)
    , m_onPassed(std::move(onPassed))
    , m_one(one, interfaceOne, m_relay, "one", seed)
    , m_other(other, interfaceOther, m_relay, "other", seed + 1)
    , m_stop(::eventfd(0, EFD_CLOEXEC))
    , m_thread(&LossyLink::run, this)
{}

LossyLink::~LossyLink()
{
    ::eventfd_write(m_stop, 1);
    m_thread.join();
    ::close(m_stop);
}

void LossyLink::run()
{
    std::array<pollfd, 3> sources{
        {{m_one.socket, POLLIN, 0}, {m_other.socket, POLLIN, 0}, {m_stop, POLLIN, 0}}};
    while (::poll(sources.data(), sources.size(), -1) >= 0 || errno == EINTR) {
        if (sources[2].revents != 0)
            return;
        forward(m_one, m_other);
        forward(m_other, m_one);
    }
}

/// Passes one frame on, if there is one.
void LossyLink::forward(End& from, const End& to)
{
    std::array<char, offloadHeader + longestFrame> frame;
    const ssize_t received = ::recv(from.socket, frame.data(), frame.size(), 0);
    if (received < static_cast<ssize_t>(offloadHeader))
        return;
    const auto size = static_cast<std::size_t>(received);
    const bool isCounted = isDiscovery(frame.data() + offloadHeader, size - offloadHeader);
    // One random number per discovery datagram, even if the link is cut.
    const bool isUnlucky = isCounted && std::uniform_real_distribution<double>(0, 1)(from.generator) < m_loss;
    const bool passes = !isUnlucky && !m_isCut && ::send(to.socket, frame.data(), size, 0) == received;
    if (!isCounted)
        return;
    ++(passes ? m_passed : m_lost);
    if (passes && &to == &m_one && m_onPassed)
        m_onPassed(std::string(frame.data() + offloadHeader, size - offloadHeader));
}

}  // namespace Nubo::ServiceDiscovery::Testing
