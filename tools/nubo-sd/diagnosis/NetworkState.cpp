#include "diagnosis/NetworkState.h"

#include "Errors.h"
#include "text/Text.h"
#include "unit/DiscoveryGroup.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <memory>
#include <set>
#include <sstream>
#include <system_error>

#include <arpa/inet.h>
#include <linux/if_addr.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace NuboSd {

namespace {

constexpr std::size_t hexDigits = 32;

[[noreturn]] void fail(const std::string& what)
{
    throw NetworkError("the state of the network cannot be read: " + what + ": " +
                       std::generic_category().message(errno));
}

using Words = std::vector<std::string>;

/// The lines of a file of the kernel, split into words; empty when there is no such file.
std::vector<Words> readTable(const std::string& path)
{
    std::vector<Words> table;
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line)) {
        std::istringstream words(line);
        Words row;
        for (std::string word; words >> word;)
            row.push_back(word);
        table.push_back(row);
    }
    return table;
}

unsigned long fromHex(const std::string& text)
{
    unsigned long value = 0;
    std::istringstream(text) >> std::hex >> value;
    return value;
}

std::string addressText(const std::string& digits)
{
    in6_addr bytes{};
    for (std::size_t i = 0; i < sizeof bytes.s6_addr; ++i)
        bytes.s6_addr[i] = static_cast<std::uint8_t>(fromHex(digits.substr(2 * i, 2)));
    std::array<char, INET6_ADDRSTRLEN> text{};
    return ::inet_ntop(AF_INET6, &bytes, text.data(), text.size());
}

/// The discovery group in the notation of the kernel: "ff14…".
std::string groupDigits()
{
    in6_addr bytes{};
    ::inet_pton(AF_INET6, discoveryGroup, &bytes);
    std::ostringstream digits;
    for (const unsigned byte : bytes.s6_addr)
        digits << std::hex << std::setfill('0') << std::setw(2) << byte;
    return digits.str();
}

/// Whether a prefix covers the discovery group.
bool leadsToGroup(const std::string& digits, unsigned long prefixLength)
{
    static const std::string group = groupDigits();
    for (std::size_t i = 0; i < hexDigits && 4 * i < prefixLength; ++i) {
        const unsigned long unused = std::max(4 * (i + 1), prefixLength) - prefixLength;
        const unsigned long difference = fromHex(digits.substr(i, 1)) ^ fromHex(std::string(1, group[i]));
        if ((difference >> unused) != 0)
            return false;
    }
    return true;
}

void addAddresses(std::vector<InterfaceState>& interfaces)
{
    for (const Words& row : readTable("/proc/net/if_inet6")) {  // address index prefix scope flags name
        if (row.size() < 6 || row[0].size() != hexDigits)
            continue;
        const unsigned long index = fromHex(row[1]);
        const unsigned long flags = fromHex(row[4]);
        AddressState address;
        address.text = addressText(row[0]);
        address.prefixLength = static_cast<unsigned>(fromHex(row[2]));
        address.isTentative = (flags & IFA_F_TENTATIVE) != 0;
        address.isDuplicate = (flags & IFA_F_DADFAILED) != 0;
        address.isDeprecated = (flags & IFA_F_DEPRECATED) != 0;
        for (InterfaceState& interface : interfaces) {
            if (interface.index == index)
                interface.addresses.push_back(address);
        }
    }
}

/// The names of the interfaces with a route to the group.
std::set<std::string> routedInterfaces()
{
    constexpr unsigned long rejects = 0x0200;
    std::set<std::string> names;
    for (const Words& row : readTable("/proc/net/ipv6_route")) {  // target prefix … flags name
        if (row.size() >= 10 && row[0].size() == hexDigits && leadsToGroup(row[0], fromHex(row[1])) &&
            (fromHex(row[8]) & rejects) == 0)
            names.insert(row[9]);
    }
    return names;
}

std::set<std::string> joinedInterfaces()
{
    const std::string group = groupDigits();
    std::set<std::string> names;
    for (const Words& row : readTable("/proc/net/igmp6")) {  // index name group …
        if (row.size() >= 3 && row[2] == group)
            names.insert(row[1]);
    }
    return names;
}

unsigned flagsOf(int socket, const char* name)
{
    ifreq request{};
    std::string(name).copy(request.ifr_name, IFNAMSIZ - 1);
    return ::ioctl(socket, SIOCGIFFLAGS, &request) == 0 ? static_cast<unsigned short>(request.ifr_flags) : 0;
}

}  // namespace

std::vector<InterfaceState> readInterfaces()
{
    if (!std::ifstream("/proc/net/dev"))
        fail("/proc/net");
    const std::unique_ptr<struct if_nameindex, decltype(&::if_freenameindex)> list(::if_nameindex(),
                                                                                   &::if_freenameindex);
    const int socket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (!list || socket < 0)
        fail("interfaces");

    const std::set<std::string> routed = routedInterfaces();
    const std::set<std::string> joined = joinedInterfaces();
    std::vector<InterfaceState> interfaces;
    for (const struct if_nameindex* one = list.get(); one->if_index != 0; ++one) {
        const unsigned flags = flagsOf(socket, one->if_name);
        InterfaceState interface;
        interface.name = one->if_name;
        interface.index = one->if_index;
        interface.isLoopback = (flags & IFF_LOOPBACK) != 0;
        interface.isUp = (flags & IFF_UP) != 0;
        interface.hasCarrier = (flags & IFF_RUNNING) != 0;
        interface.canMulticast = (flags & IFF_MULTICAST) != 0;
        interface.hasGroupRoute = routed.count(interface.name) != 0;
        interface.isGroupJoined = joined.count(interface.name) != 0;
        interface.settings = readIpv6Settings(interface.name);
        interfaces.push_back(interface);
    }
    ::close(socket);
    addAddresses(interfaces);
    std::sort(interfaces.begin(), interfaces.end(),
              [](const auto& one, const auto& other) { return one.index < other.index; });
    return interfaces;
}

bool hasIPv6()
{
    return std::ifstream("/proc/net/if_inet6").is_open();
}

Ipv6Settings readIpv6Settings(const std::string& interface)
{
    const std::string folder = "/proc/sys/net/ipv6/conf/" + interface;
    Ipv6Settings settings;
    std::ifstream(folder + "/disable_ipv6") >> settings.disableIpv6;
    std::ifstream(folder + "/accept_dad") >> settings.acceptDad;
    return settings;
}

std::map<std::string, std::uint64_t> readCounters()
{
    std::map<std::string, std::uint64_t> counters;
    for (const Words& row : readTable("/proc/net/snmp6")) {
        if (row.size() == 2)
            std::istringstream(row[1]) >> counters[row[0]];
    }
    return counters;
}

std::vector<std::string> holdersOfPort(std::uint16_t port)
{
    std::set<std::string> sockets;
    for (const Words& row : readTable("/proc/net/udp6")) {  // number address:port … inode is the tenth
        if (row.size() >= 10 && row[1].size() > hexDigits && fromHex(row[1].substr(hexDigits + 1)) == port)
            sockets.insert("socket:[" + row[9] + "]");
    }

    namespace fs = std::filesystem;
    std::vector<std::string> holders;
    std::error_code ignored;  // processes end, and those of other users hide their files
    for (fs::directory_iterator process("/proc", ignored), none; process != none; process.increment(ignored))
    {
        const std::string id = process->path().filename();
        if (id.find_first_not_of("0123456789") != std::string::npos)
            continue;
        bool holds = false;
        for (fs::directory_iterator file(process->path() / "fd", ignored); file != none && !holds;
             file.increment(ignored))
            holds = sockets.count(fs::read_symlink(file->path(), ignored).string()) != 0;
        std::string name = "?";
        if (holds && std::getline(std::ifstream(process->path() / "comm"), name))
            holders.push_back(printable(name) + " (process " + id + ")");
    }
    return holders;
}

}  // namespace NuboSd
