#include "support/Namespace.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <fcntl.h>
#include <sched.h>
#include <unistd.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

int opened(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        throw std::system_error(errno, std::generic_category(), path);
    return descriptor;
}

void enter(int descriptor)
{
    if (::setns(descriptor, CLONE_NEWNET) != 0)
        throw std::system_error(errno, std::generic_category(), "setns");
}

}  // namespace

std::string shellOutput(const std::string& command)
{
    const auto close = [](std::FILE* pipe) { return ::pclose(pipe); };
    std::FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
    if (!pipe)
        throw std::system_error(errno, std::generic_category(), command);
    std::string output;
    std::array<char, 4096> part{};
    while (std::fgets(part.data(), static_cast<int>(part.size()), pipe))
        output += part.data();
    if (close(pipe) != 0)
        throw std::runtime_error(command + ": " + output);
    return output;
}

void shell(const std::string& command)
{
    shellOutput(command);
}

Namespace::Namespace(const std::string& name) : m_name(name)
{
    shell("ip netns add " + name);
    m_descriptor = opened("/run/netns/" + name);
    setIPv6("default/accept_dad", "0");
    setIPv6("all/accept_dad", "0");
    ip("link set lo up");
}

Namespace::~Namespace()
{
    ::close(m_descriptor);
    try {
        shell("ip netns delete " + m_name);
    }
    catch (const std::exception&) {
        // It ends with the process.
    }
}

void Namespace::ip(const std::string& arguments) const
{
    shell("ip -n " + m_name + " " + arguments);
}

void Namespace::tc(const std::string& arguments) const
{
    shell("tc -n " + m_name + " " + arguments);
}

void Namespace::addAddress(const std::string& interface, const std::string& address) const
{
    ip("address add " + address + " dev " + interface + " nodad");
}

void Namespace::setIPv6(const std::string& key, const std::string& value) const
{
    const InNamespace inside(*this);
    std::ofstream file("/proc/sys/net/ipv6/conf/" + key);
    if (!(file << value << std::flush))
        throw std::runtime_error("cannot set " + key + " to " + value);
}

InNamespace::InNamespace(const Namespace& target) : m_former(opened("/proc/thread-self/ns/net"))
{
    enter(target.descriptor());
}

InNamespace::~InNamespace()
{
    enter(m_former);
    ::close(m_former);
}

void connect(const Namespace& one, const std::string& interfaceOne, const Namespace& other,
             const std::string& interfaceOther)
{
    shell("ip link add " + interfaceOne + " netns " + one.name() + " type veth peer name " + interfaceOther +
          " netns " + other.name());
    one.ip("link set " + interfaceOne + " up");
    other.ip("link set " + interfaceOther + " up");
}

NetworkPair::NetworkPair()
{
    for (const Namespace* network : {&here, &there})
        network->setIPv6("default/addr_gen_mode", "1");
}

void NetworkPair::link(const std::string& interface, const std::string& addressHere,
                       const std::string& addressThere) const
{
    connect(here, interface, there, interface);
    if (!addressHere.empty())
        here.addAddress(interface, addressHere + "/64");
    if (!addressThere.empty())
        there.addAddress(interface, addressThere + "/64");
}

Segment::Segment()
{
    m_switch.ip("link add br0 type bridge mcast_snooping 0");
    m_switch.ip("link set br0 up");
}

void Segment::plug(const Namespace& unit, const std::string& interface)
{
    const std::string port = "port" + std::to_string(++m_ports);
    connect(unit, interface, m_switch, port);
    m_switch.ip("link set " + port + " master br0");
}

std::vector<std::string> joinedInterfaces()
{
    std::vector<std::string> interfaces;
    for (const auto& [interface, users] : groupUsers())
        interfaces.push_back(interface);
    return interfaces;
}

std::map<std::string, unsigned> groupUsers()
{
    std::ifstream memberships("/proc/thread-self/net/igmp6");
    std::map<std::string, unsigned> result;
    for (std::string line; std::getline(memberships, line);) {
        std::istringstream fields(line);
        std::string index;
        std::string interface;
        std::string group;
        unsigned users = 0;
        if (fields >> index >> interface >> group >> users && group == "ff140000000000000000000000040000")
            result[interface] = users;
    }
    return result;
}

std::size_t lostDatagrams(const Namespace& network)
{
    const InNamespace inside(network);
    std::ifstream counters("/proc/thread-self/net/snmp6");
    std::string name;
    for (std::size_t count = 0; counters >> name >> count;) {
        if (name == "Udp6RcvbufErrors")
            return count;
    }
    throw std::runtime_error("no count of lost datagrams");
}

}  // namespace Nubo::ServiceDiscovery::Testing
