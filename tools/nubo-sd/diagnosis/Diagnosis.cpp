#include "diagnosis/Diagnosis.h"

#include "diagnosis/Picture.h"
#include "unit/DiscoveryGroup.h"

#include <algorithm>
#include <utility>

namespace NuboSd {

namespace {

/// The command that changes a setting of an interface. sysctl expects a slash for the dot in the name of a
/// VLAN's interface, such as eth0.10.
std::string commandToSet(std::string interface, const std::string& setting)
{
    std::replace(interface.begin(), interface.end(), '.', '/');
    return "sysctl -w net.ipv6.conf." + interface + '.' + setting;
}

class Diagnosis
{
public:
    explicit Diagnosis(const Picture& picture) : m_picture(picture) {}

    std::vector<Finding> run()
    {
        if (!m_picture.hasIPv6) {
            bad("the kernel has no IPv6", "start it without ipv6.disable=1");
            return std::move(m_findings);
        }
        judgeSettings();
        for (const InterfaceState& interface : m_picture.interfaces)
            judgeInterface(interface);
        judgeNamedInterfaces();
        if (!m_picture.addressError.empty())
            return std::move(m_findings);
        judgeNamedAddress();
        judgePort();
        for (const InterfaceState& interface : m_picture.interfaces) {
            if (isUsed(interface))
                judgeGroup(interface);
        }
        for (const GroupEcho& echo : m_picture.echoes)
            judgeEcho(echo);
        judgeCounters();
        return std::move(m_findings);
    }

private:
    void ok(const std::string& what) { m_findings.push_back({Finding::Kind::Ok, what, {}}); }
    void note(const std::string& what, const std::string& cure = {})
    {
        m_findings.push_back({Finding::Kind::Note, what, cure});
    }
    void bad(const std::string& what, const std::string& cure)
    {
        m_findings.push_back({Finding::Kind::Bad, what, cure});
    }

    bool isUsed(const InterfaceState& interface) const { return m_picture.used.count(interface.name) != 0; }

    bool isNamed(const InterfaceState& interface) const
    {
        const auto& names = m_picture.namedInterfaces;
        return std::find(names.begin(), names.end(), interface.name) != names.end();
    }

    void judgeSettings()
    {
        if (m_picture.settingsOfAll.disableIpv6 == 1)
            bad("IPv6 is disabled on all interfaces", commandToSet("all", "disable_ipv6=0"));
        else if (m_picture.settingsOfNew.disableIpv6 == 1)
            note("IPv6 is disabled on interfaces that are yet to come",
                 commandToSet("default", "disable_ipv6=0"));
    }

    void judgeInterface(const InterfaceState& interface)
    {
        if (isUsed(interface))
            ok(interface.name + " is used with " + m_picture.used.at(interface.name));
        else
            judgeUnused(interface);
        if (interface.isLoopback || !interface.isUp)
            return;

        if (!interface.hasCarrier)
            note(interface.name + " has no carrier", "plug it in, or start its other end");
        for (const AddressState& address : interface.addresses)
            judgeAddress(address, interface.name);
        const bool isChecked = std::max(m_picture.settingsOfAll.acceptDad, interface.settings.acceptDad) > 0;
        if (isUsed(interface) && !isChecked)
            note("addresses of " + interface.name + " are not checked for duplicates",
                 commandToSet(interface.name, "accept_dad=1"));
    }

    void judgeAddress(const AddressState& address, const std::string& interface)
    {
        const std::string text = address.text + " of " + interface;
        if (address.isDuplicate)
            bad("another unit has the address " + text + " too",
                "give each unit its own: ip address delete " + address.text + '/' +
                    std::to_string(address.prefixLength) + " dev " + interface + ", and add another one");
        else if (address.isTentative)
            note("the address " + text + " is still being checked for duplicates",
                 "wait some seconds; the check needs a carrier");
        else if (address.isDeprecated)
            note("the address " + text + " is deprecated");
    }

    /// Bad only if the user asked for the interface.
    void judgeUnused(const InterfaceState& interface)
    {
        const auto [why, cure] = reasonUnused(interface);
        const std::string what = interface.name + " is not used: " + why;
        if (isNamed(interface))
            bad(what, cure);
        else
            note(what, cure);
    }

    /// Why an interface is not used, and the cure.
    std::pair<std::string, std::string> reasonUnused(const InterfaceState& interface) const
    {
        const auto has = [&](auto isSuch) {
            return std::any_of(interface.addresses.begin(), interface.addresses.end(), isSuch);
        };
        const auto byDisabledIPv6 = "; the kernel does so when another unit has the link-local address";
        if (!m_picture.namedInterfaces.empty() && !isNamed(interface))
            return {"--interface does not name it", ""};
        if (interface.isLoopback)
            return {"it is loopback", ""};
        if (!interface.isUp)
            return {"it is down", "ip link set " + interface.name + " up"};
        if (!interface.canMulticast)
            return {"it cannot multicast", "ip link set " + interface.name + " multicast on"};
        if (interface.settings.disableIpv6 == 1)
            return {"IPv6 is disabled on it", commandToSet(interface.name, "disable_ipv6=0") +
                                                  (interface.settings.acceptDad > 1 ? byDisabledIPv6 : "")};
        if (interface.addresses.empty())
            return {"it has no IPv6 address", "ip address add ADDRESS/64 dev " + interface.name};
        if (has([](const AddressState& one) { return one.isTentative && !one.isDuplicate; }))
            return {"an address is still being checked for duplicates",
                    "wait some seconds; the check needs a carrier"};
        if (has([](const AddressState& one) { return !one.isTentative; }))
            return {"it has just changed", "look again"};
        return {"another unit has its address too", "give each unit its own"};
    }

    void judgeNamedInterfaces()
    {
        for (const std::string& name : m_picture.namedInterfaces) {
            if (std::none_of(m_picture.interfaces.begin(), m_picture.interfaces.end(),
                             [&](const InterfaceState& one) { return one.name == name; }))
                bad("there is no interface \"" + name + "\"", "ip link shows those that there are");
        }
        if (m_picture.used.empty())
            bad("no interface can be used", "one must be up and have an IPv6 address");
    }

    void judgeNamedAddress()
    {
        if (m_picture.namedAddress.empty())
            return;
        const auto hasIt = [&](const InterfaceState& interface) {
            return std::any_of(interface.addresses.begin(), interface.addresses.end(),
                               [&](const AddressState& one) { return one.text == m_picture.namedAddress; });
        };
        if (std::none_of(m_picture.interfaces.begin(), m_picture.interfaces.end(), hasIt))
            note("no interface has the address " + m_picture.namedAddress,
                 "others reach this unit only if their routes lead here");
    }

    void judgePort()
    {
        const std::string port = "port " + std::to_string(discoveryPort);
        switch (m_picture.port.state) {
            case DiscoveryPort::State::Free:
                ok(port + " is free");
                break;
            case DiscoveryPort::State::Taken: {
                std::string holders;
                for (const std::string& holder : m_picture.portHolders)
                    holders += (holders.empty() ? " by " : ", ") + holder;
                note(port + " is taken" + (holders.empty() ? " by a process of another user" : holders),
                     "a unit has one registry; end this one to start another");
                break;
            }
            case DiscoveryPort::State::Unusable:
                bad(port + " cannot be used: " + m_picture.port.error, "see what the system says");
                break;
        }
    }

    void judgeGroup(const InterfaceState& interface)
    {
        const std::string group = std::string("the group ") + discoveryGroup;
        if (interface.hasGroupRoute)
            ok(interface.name + " has a route to " + group);
        else
            bad(interface.name + " has no route to " + group,
                "ip -6 route add multicast ff00::/8 dev " + interface.name + " table local");
        if (interface.isGroupJoined)
            ok(group + " is joined on " + interface.name);
        else if (m_picture.port.state == DiscoveryPort::State::Taken)
            note("the registry has not joined " + group + " on " + interface.name,
                 "let it use this interface");
        else
            note("nobody has joined " + group + " on " + interface.name + ": no registry runs");
    }

    void judgeEcho(const GroupEcho& echo)
    {
        if (echo.isBack)
            ok("a datagram to the group comes back on " + echo.interface);
        else if (echo.error.empty())
            bad("a datagram to the group does not come back on " + echo.interface,
                "look for a packet filter that drops UDP: nft list ruleset");
        else
            bad("no datagram can be sent to the group on " + echo.interface + ": " + echo.error,
                "look for routes and packet filters: ip -6 route show table all");
    }

    void judgeCounters()
    {
        // `all` includes the other two.
        const std::uint64_t overrun = counter("Udp6RcvbufErrors");
        const std::uint64_t all = counter("Udp6InErrors");
        const std::uint64_t damaged = counter("Udp6InCsumErrors");
        noteLoss(overrun, "as a receiver was too slow",
                 "give processes more time, or net.core.rmem_max more bytes");
        noteLoss(damaged, "as they were damaged", "look at cables and network cards");
        noteLoss(all - std::min(all, overrun + damaged), "for other reasons", "");
        if (overrun == 0 && damaged == 0 && all == 0)
            ok("no UDP datagram was lost since the start");
    }

    std::uint64_t counter(const char* name) const
    {
        const auto counter = m_picture.counters.find(name);
        return counter == m_picture.counters.end() ? 0 : counter->second;
    }

    void noteLoss(std::uint64_t number, const std::string& why, const std::string& cure)
    {
        if (number != 0)
            note("UDP datagrams lost since the start, " + why + ": " + std::to_string(number), cure);
    }

    const Picture& m_picture;
    std::vector<Finding> m_findings;
};

}  // namespace

std::vector<Finding> diagnose(const Picture& picture)
{
    return Diagnosis(picture).run();
}

}  // namespace NuboSd
