#include "capture/Capture.h"

#include "Errors.h"
#include "unit/DiscoveryGroup.h"

#include <array>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/ip6.h>
#include <netinet/udp.h>
#include <pcap/pcap.h>
#include <pcap/sll.h>

namespace NuboSd {

namespace {

constexpr int wholeFrame = 65535 + 128;  // the largest datagram with all headers
constexpr int bufferSize = 8 * 1024 * 1024;
constexpr std::uint16_t etherTypeIPv6 = 0x86dd;
constexpr std::uint16_t etherTypeVlan = 0x8100;
constexpr std::uint16_t etherTypeServiceVlan = 0x88a8;

/// The rest of a frame behind the headers that were taken off.
class Bytes
{
public:
    Bytes(const std::uint8_t* data, std::size_t size) : m_left(reinterpret_cast<const char*>(data), size) {}

    template <class Header>
    bool take(Header& header)
    {
        if (m_left.size() < sizeof header)
            return false;
        std::memcpy(&header, m_left.data(), sizeof header);
        m_left.remove_prefix(sizeof header);
        return true;
    }

    std::string_view left() const { return m_left; }

private:
    std::string_view m_left;
};

struct EtherHeader
{
    std::array<std::uint8_t, 12> addresses;
    std::uint16_t type;
};

struct VlanTag
{
    std::uint16_t identifier;
    std::uint16_t type;
};

/// The index in a file may belong to another interface here.
std::string interfaceName(unsigned index, bool isLive)
{
    std::array<char, IF_NAMESIZE> name{};
    return isLive && ::if_indextoname(index, name.data()) ? name.data() : "#" + std::to_string(index);
}

/// Takes off everything before the IP header. Returns the interface's name, or none if the frame is not IPv6.
std::optional<std::string> takeLinkHeader(Bytes& bytes, int linkType, bool isLive)
{
    constexpr auto unknown = "?";
    switch (linkType) {
        case DLT_LINUX_SLL2: {
            sll2_header header{};
            if (!bytes.take(header) || ntohs(header.sll2_protocol) != etherTypeIPv6)
                return std::nullopt;
            return interfaceName(ntohl(header.sll2_if_index), isLive);
        }
        case DLT_LINUX_SLL: {
            sll_header header{};
            if (!bytes.take(header) || ntohs(header.sll_protocol) != etherTypeIPv6)
                return std::nullopt;
            return unknown;
        }
        case DLT_EN10MB: {
            EtherHeader header{};
            if (!bytes.take(header))
                return std::nullopt;
            std::uint16_t type = ntohs(header.type);
            for (VlanTag tag{}; type == etherTypeVlan || type == etherTypeServiceVlan; type = ntohs(tag.type))
            {
                if (!bytes.take(tag))
                    return std::nullopt;
            }
            return type == etherTypeIPv6 ? std::optional<std::string>(unknown) : std::nullopt;
        }
        default:
            return unknown;  // raw IP
    }
}

/// The datagram in a frame; none if the frame is not UDP over IPv6.
std::optional<SeenDatagram> datagramIn(const pcap_pkthdr& frame, const std::uint8_t* data, int linkType,
                                       bool isLive)
{
    Bytes bytes(data, frame.caplen);
    const std::optional<std::string> interface = takeLinkHeader(bytes, linkType, isLive);
    ip6_hdr ip{};
    udphdr udp{};
    if (!interface || !bytes.take(ip) || ip.ip6_nxt != IPPROTO_UDP || !bytes.take(udp))
        return std::nullopt;

    sockaddr_in6 sender{};
    sender.sin6_family = AF_INET6;
    sender.sin6_addr = ip.ip6_src;
    sender.sin6_port = udp.uh_sport;

    SeenDatagram datagram;
    datagram.time = std::chrono::system_clock::time_point(std::chrono::seconds(frame.ts.tv_sec) +
                                                          std::chrono::microseconds(frame.ts.tv_usec));
    datagram.interface = *interface;
    datagram.sender = Poco::Net::SocketAddress(reinterpret_cast<const sockaddr*>(&sender), sizeof sender);
    const std::size_t told = ntohs(udp.uh_ulen);
    datagram.length = told < sizeof udp ? 0 : told - sizeof udp;
    datagram.bytes = bytes.left().substr(0, datagram.length);
    return datagram;
}

/// Context of the callback of libpcap's loop.
struct Reading
{
    const Capture::Handle& handle;
    pcap_dumper_t* dumper;
    int linkType;
    bool isLive;
};

void onFrame(std::uint8_t* user, const pcap_pkthdr* frame, const std::uint8_t* data)
{
    auto& reading = *reinterpret_cast<Reading*>(user);
    if (reading.dumper)
        ::pcap_dump(reinterpret_cast<std::uint8_t*>(reading.dumper), frame, data);
    if (const auto datagram = datagramIn(*frame, data, reading.linkType, reading.isLive))
        reading.handle(*datagram);
}

}  // namespace

void Capture::Closer::operator()(pcap* handle) const
{
    ::pcap_close(handle);
}

void Capture::Closer::operator()(pcap_dumper* dumper) const
{
    ::pcap_dump_close(dumper);
}

Capture::Capture(pcap* handle) : m_handle(handle) {}
Capture::Capture(Capture&&) noexcept = default;
Capture::~Capture() = default;

Capture Capture::live()
{
    std::array<char, PCAP_ERRBUF_SIZE> error{};
    pcap_t* const handle = ::pcap_create("any", error.data());
    if (!handle)
        throw NetworkError(std::string("cannot capture: ") + error.data());
    Capture capture(handle);
    ::pcap_set_snaplen(handle, wholeFrame);
    ::pcap_set_buffer_size(handle, bufferSize);
    ::pcap_set_immediate_mode(handle, 1);
    const int result = ::pcap_activate(handle);
    if (result == PCAP_ERROR_PERM_DENIED)
        throw NetworkError(
            "capturing needs the capability CAP_NET_RAW: run nubo-sd monitor as root, or grant it once with "
            "\"setcap cap_net_raw+ep\" on the program");
    if (result < 0)
        throw NetworkError(std::string("cannot capture: ") + ::pcap_geterr(handle));
    // With the index of the interface in each frame.
    if (::pcap_set_datalink(handle, DLT_LINUX_SLL2) != 0 || ::pcap_setnonblock(handle, 1, error.data()) != 0)
        throw NetworkError(std::string("cannot capture: ") + ::pcap_geterr(handle));
    capture.filter();
    return capture;
}

Capture Capture::ofFile(const std::string& path)
{
    std::array<char, PCAP_ERRBUF_SIZE> error{};
    pcap_t* const handle = ::pcap_open_offline(path.c_str(), error.data());
    if (!handle)
        throw UsageError("cannot read the capture \"" + path + "\": " + error.data());
    Capture capture(handle);
    switch (::pcap_datalink(handle)) {
        case DLT_LINUX_SLL2:
        case DLT_LINUX_SLL:
        case DLT_EN10MB:
        case DLT_RAW:
        case DLT_IPV6:
            break;
        default:
            throw UsageError("cannot read the capture \"" + path +
                             "\": its frames are neither of Linux, Ethernet nor raw IP");
    }
    capture.filter();
    return capture;
}

void Capture::filter()
{
    const std::string ofDiscovery = "ip6 and udp port " + std::to_string(discoveryPort);
    bpf_program program{};
    if (::pcap_compile(m_handle.get(), &program, ofDiscovery.c_str(), 1, PCAP_NETMASK_UNKNOWN) != 0)
        throw NetworkError(std::string("cannot filter: ") + ::pcap_geterr(m_handle.get()));
    const int result = ::pcap_setfilter(m_handle.get(), &program);
    ::pcap_freecode(&program);
    if (result != 0)
        throw NetworkError(std::string("cannot filter: ") + ::pcap_geterr(m_handle.get()));
}

void Capture::writeTo(const std::string& path)
{
    m_dumper.reset(::pcap_dump_open(m_handle.get(), path.c_str()));
    if (!m_dumper)
        throw UsageError("cannot write the capture \"" + path + "\": " + ::pcap_geterr(m_handle.get()));
}

int Capture::descriptor() const
{
    return ::pcap_get_selectable_fd(m_handle.get());
}

void Capture::read(const Handle& handle)
{
    Reading reading{handle, m_dumper.get(), ::pcap_datalink(m_handle.get()),
                    ::pcap_file(m_handle.get()) == nullptr};
    if (::pcap_dispatch(m_handle.get(), -1, onFrame, reinterpret_cast<std::uint8_t*>(&reading)) < 0)
        throw NetworkError(std::string("cannot capture any more: ") + ::pcap_geterr(m_handle.get()));
    // A reader of the file must find everything that was printed.
    if (m_dumper && ::pcap_dump_flush(m_dumper.get()) != 0)
        throw NetworkError("cannot write the capture any more");
}

unsigned Capture::dropped() const
{
    pcap_stat statistics{};
    return ::pcap_stats(m_handle.get(), &statistics) == 0 ? statistics.ps_drop : 0;
}

}  // namespace NuboSd
