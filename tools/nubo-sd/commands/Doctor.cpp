#include "Errors.h"
#include "commands/Subcommands.h"
#include "diagnosis/GroupEcho.h"
#include "diagnosis/NetworkState.h"
#include "text/Text.h"
#include "text/UnicastAddress.h"
#include "unit/DiscoveryGroup.h"
#include "unit/DiscoveryPort.h"

#include <KELOEMInterfaceLib/OEMDispatcher.h>

#include <Poco/Exception.h>

#include <algorithm>
#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

namespace NuboSd {

namespace {

/// Writes the findings, one a line.
class Findings
{
public:
    explicit Findings(bool json) : m_json(json) {}

    void ok(const std::string& what) { print("ok", what, {}); }
    void note(const std::string& what, const std::string& cure = {}) { print("note", what, cure); }
    void bad(const std::string& what, const std::string& cure)
    {
        m_isAnyBad = true;
        print("bad", what, cure);
    }

    bool isAnyBad() const { return m_isAnyBad; }

private:
    void print(const std::string& kind, const std::string& what, const std::string& cure) const
    {
        if (m_json) {
            const nlohmann::ordered_json json{{"finding", kind}, {"what", what}, {"cure", cure}};
            std::cout << jsonLine(json) << '\n';
            return;
        }
        constexpr std::size_t kindWidth = 6;
        std::cout << padded(kind, kindWidth) << printable(what) << (cure.empty() ? "" : " - ")
                  << printable(cure) << '\n';
    }

    const bool m_json;
    bool m_isAnyBad = false;
};

/// What sets a kernel's setting of an interface, in which the dot of a VLAN's name, eth0.10, is a slash.
std::string commandToSet(std::string interface, const std::string& setting)
{
    std::replace(interface.begin(), interface.end(), '.', '/');
    return "sysctl -w net.ipv6.conf." + interface + '.' + setting;
}

class Doctor
{
public:
    explicit Doctor(const CommonOptions& common) : m_common(common), m_findings(common.json) {}

    int run()
    {
        m_interfaces = readInterfaces();
        if (hasIPv6()) {
            chooseInterfaces();
            lookAtSettings();
            for (const InterfaceState& interface : m_interfaces)
                lookAtInterface(interface);
            lookAtChoice();
            lookAtPort();
            for (const InterfaceState& interface : m_interfaces) {
                if (isUsed(interface))
                    lookAtGroup(interface);
            }
            lookAtEcho();
            lookAtCounters();
        }
        else {
            m_findings.bad("the kernel has no IPv6", "start it without ipv6.disable=1");
        }
        std::cout << std::flush;
        return m_findings.isAnyBad() ? SomethingBad : Done;
    }

private:
    /// Asks who decides it for the other subcommands.
    void chooseInterfaces()
    {
        try {
            const OEMInterface::NetlinkDispatcher dispatcher(m_common.interfaces);
            for (const auto& interface : dispatcher.interfaces())
                m_used[interface.name] = interface.ip;
        }
        catch (const Poco::Exception& exception) {
            throw NetworkError("the network cannot be used: " + exception.displayText());
        }
    }

    bool isUsed(const InterfaceState& interface) const { return m_used.count(interface.name) != 0; }

    bool isNamed(const InterfaceState& interface) const
    {
        const auto& names = m_common.interfaces;
        return std::find(names.begin(), names.end(), interface.name) != names.end();
    }

    void lookAtSettings()
    {
        if (ipv6Setting("all", "disable_ipv6") == 1)
            m_findings.bad("IPv6 is disabled on all interfaces", commandToSet("all", "disable_ipv6=0"));
        else if (ipv6Setting("default", "disable_ipv6") == 1)
            m_findings.note("IPv6 is disabled on interfaces that are yet to come",
                            commandToSet("default", "disable_ipv6=0"));
    }

    void lookAtInterface(const InterfaceState& interface)
    {
        if (isUsed(interface))
            m_findings.ok(interface.name + " is used with " + m_used.at(interface.name));
        else
            tellWhyUnused(interface);
        if (interface.isLoopback || !interface.isUp)
            return;

        if (!interface.hasCarrier)
            m_findings.note(interface.name + " has no carrier", "plug it in, or start its other end");
        for (const AddressState& address : interface.addresses) {
            if (address.isDuplicate)
                m_findings.bad(
                    "another unit has the address " + address.text + " of " + interface.name + " too",
                    "give each unit its own: ip address delete " + address.text + '/' +
                        std::to_string(address.prefixLength) + " dev " + interface.name +
                        ", and add another one");
            else if (address.isTentative)
                m_findings.note("the address " + address.text + " of " + interface.name +
                                    " is still being checked for duplicates",
                                "wait some seconds; the check needs a carrier");
            else if (address.isDeprecated)
                m_findings.note("the address " + address.text + " of " + interface.name + " is deprecated");
        }
        const bool isChecked =
            std::max(ipv6Setting("all", "accept_dad"), ipv6Setting(interface.name, "accept_dad")) > 0;
        if (isUsed(interface) && !isChecked)
            m_findings.note("addresses of " + interface.name + " are not checked for duplicates",
                            commandToSet(interface.name, "accept_dad=1"));
    }

    void tellWhyUnused(const InterfaceState& interface)
    {
        const auto tell = [&](const std::string& why, const std::string& cure) {
            const std::string what = interface.name + " is not used: " + why;
            if (isNamed(interface))
                m_findings.bad(what, cure);
            else
                m_findings.note(what, cure);
        };
        const auto has = [&](auto isSuch) {
            return std::any_of(interface.addresses.begin(), interface.addresses.end(), isSuch);
        };
        if (!m_common.interfaces.empty() && !isNamed(interface))
            m_findings.note(interface.name + " is not used: --interface does not name it");
        else if (interface.isLoopback)
            tell("it is loopback", "");
        else if (!interface.isUp)
            tell("it is down", "ip link set " + interface.name + " up");
        else if (!interface.canMulticast)
            tell("it cannot multicast", "ip link set " + interface.name + " multicast on");
        else if (ipv6Setting(interface.name, "disable_ipv6") == 1)
            tell("IPv6 is disabled on it",
                 commandToSet(interface.name, "disable_ipv6=0") +
                     (ipv6Setting(interface.name, "accept_dad") > 1
                          ? "; the kernel does so when another unit has the link-local address"
                          : ""));
        else if (interface.addresses.empty())
            tell("it has no IPv6 address", "ip address add ADDRESS/64 dev " + interface.name);
        else if (has([](const AddressState& one) { return one.isTentative && !one.isDuplicate; }))
            tell("an address is still being checked for duplicates",
                 "wait some seconds; the check needs a carrier");
        else if (has([](const AddressState& one) { return !one.isTentative; }))
            tell("it has just changed", "look again");
        else
            tell("another unit has its address too", "give each unit its own");
    }

    void lookAtChoice()
    {
        for (const std::string& name : m_common.interfaces) {
            if (std::none_of(m_interfaces.begin(), m_interfaces.end(),
                             [&](const InterfaceState& one) { return one.name == name; }))
                m_findings.bad("there is no interface \"" + name + "\"",
                               "ip link shows those that there are");
        }
        if (m_used.empty())
            m_findings.bad("no interface can be used", "one must be up and have an IPv6 address");

        if (m_common.address.empty())
            return;
        const Poco::Net::IPAddress address = parseUnicastAddress(m_common.address, "--address:");
        const bool isOwn = std::any_of(m_interfaces.begin(), m_interfaces.end(), [&](const auto& interface) {
            return std::any_of(interface.addresses.begin(), interface.addresses.end(),
                               [&](const AddressState& one) { return one.text == address.toString(); });
        });
        if (!isOwn)
            m_findings.note("no interface has the address " + address.toString(),
                            "others reach this unit only if their routes lead here");
    }

    void lookAtPort()
    {
        const std::string name = "port " + std::to_string(discoveryPort);
        const DiscoveryPort port = DiscoveryPort::probe();
        if (port.state == DiscoveryPort::State::Free) {
            m_findings.ok(name + " is free");
        }
        else if (port.state == DiscoveryPort::State::Unusable) {
            m_findings.bad(name + " cannot be used: " + port.error, "see what the system says");
        }
        else {
            m_isPortTaken = true;
            std::string holders;
            for (const std::string& holder : holdersOfPort(discoveryPort))
                holders += (holders.empty() ? " by " : ", ") + holder;
            m_findings.note(
                name + " is taken" + (holders.empty() ? " by a process of another user" : holders),
                "a unit has one registry; end this one to start another");
        }
    }

    void lookAtGroup(const InterfaceState& interface)
    {
        const std::string group = std::string("the group ") + discoveryGroup;
        if (interface.hasGroupRoute)
            m_findings.ok(interface.name + " has a route to " + group);
        else
            m_findings.bad(interface.name + " has no route to " + group,
                           "ip -6 route add multicast ff00::/8 dev " + interface.name + " table local");
        if (interface.isGroupJoined)
            m_findings.ok(group + " is joined on " + interface.name);
        else if (m_isPortTaken)
            m_findings.note("the registry has not joined " + group + " on " + interface.name,
                            "let it use this interface");
        else
            m_findings.note("nobody has joined " + group + " on " + interface.name + ": no registry runs");
    }

    void lookAtEcho()
    {
        std::vector<std::string> names;
        for (const auto& [name, address] : m_used)
            names.push_back(name);
        for (const GroupEcho& echo : tryGroupEcho(names)) {
            if (echo.isBack)
                m_findings.ok("a datagram to the group comes back on " + echo.interface);
            else if (echo.error.empty())
                m_findings.bad("a datagram to the group does not come back on " + echo.interface,
                               "look for a packet filter that drops UDP: nft list ruleset");
            else
                m_findings.bad(
                    "no datagram can be sent to the group on " + echo.interface + ": " + echo.error,
                    "look for routes and packet filters: ip -6 route show table all");
        }
    }

    void lookAtCounters()
    {
        // The second counts those of the first and the third as well.
        const auto counters = readCounters();
        const auto count = [&](const char* name) {
            const auto counter = counters.find(name);
            return counter == counters.end() ? 0 : counter->second;
        };
        const std::uint64_t overrun = count("Udp6RcvbufErrors");
        const std::uint64_t damaged = count("Udp6InCsumErrors");
        const std::uint64_t all = count("Udp6InErrors");
        const auto tell = [&](std::uint64_t number, const std::string& why, const std::string& cure) {
            if (number != 0)
                m_findings.note("UDP datagrams lost since the start, " + why + ": " + std::to_string(number),
                                cure);
        };
        tell(overrun, "as a receiver was too slow",
             "give processes more time, or net.core.rmem_max more bytes");
        tell(damaged, "as they were damaged", "look at cables and network cards");
        tell(all - std::min(all, overrun + damaged), "for other reasons", "");
        if (overrun == 0 && damaged == 0 && all == 0)
            m_findings.ok("no UDP datagram was lost since the start");
    }

    const CommonOptions& m_common;
    Findings m_findings;
    std::vector<InterfaceState> m_interfaces;
    std::map<std::string, std::string> m_used;  // the address by name
    bool m_isPortTaken = false;
};

}  // namespace

Subcommand::Run setUpDoctor(CLI::App&, const CommonOptions& common)
{
    return [&common] { return Doctor(common).run(); };
}

}  // namespace NuboSd
