#pragma once

#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/Waiting.h"

#include <Poco/Exception.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <net/if.h>

namespace Nubo::ServiceDiscovery::Testing {

using std::chrono::milliseconds;

/// Longest time until a unit announces and hears again after an address has become usable.
constexpr milliseconds soon{3000};

/// Allows three seconds for all waits together, in steps of a millisecond. A step that takes longer because
/// the machine was busy counts as `longestStep`: the units could not run either.
class Deadline
{
public:
    template <class Condition>
    bool meets(Condition condition)
    {
        auto now = std::chrono::steady_clock::now();
        while (!condition()) {
            if (m_passed >= soon)
                return false;
            std::this_thread::sleep_for(milliseconds(1));
            const auto before = std::exchange(now, std::chrono::steady_clock::now());
            m_passed += std::min<std::chrono::steady_clock::duration>(now - before, longestStep);
        }
        return true;
    }

    milliseconds passed() const { return std::chrono::duration_cast<milliseconds>(m_passed); }

private:
    static constexpr milliseconds longestStep{20};

    std::chrono::steady_clock::duration m_passed{};
};

inline std::map<std::string, unsigned> groupUsersIn(const Namespace& network)
{
    const InNamespace inside(network);
    return groupUsers();
}

inline unsigned indexOf(const Namespace& network, const std::string& interface)
{
    const InNamespace inside(network);
    return ::if_nametoindex(interface.c_str());
}

/// Keeps the kernel from giving link-local addresses to new interfaces.
inline void makeNoAddresses(const Namespace& network)
{
    network.setIPv6("default/addr_gen_mode", "1");
}

/// All lines but those that are logged at every interval.
inline std::vector<std::string> linesAboveTrace(const LogCatcher& log)
{
    std::vector<std::string> result;
    for (const Poco::Message& message : log.messages()) {
        if (message.getPriority() < Poco::Message::PRIO_TRACE)
            result.push_back(message.getText());
    }
    return result;
}

inline bool offers(const Listener::Datagram& datagram, const std::string& name)
{
    return datagram.bytes.find(configText("otherserv=" + name)) != std::string::npos;
}

/// Whether it has an IPv6 endpoint with that address and port 8080.
inline bool hasEndpoint(const Listener::Datagram& datagram, const std::string& address)
{
    return datagram.bytes.find(Packets::ipv6Option(address)) != std::string::npos;
}

inline bool hears(Listener& listener, const std::function<bool(const Listener::Datagram&)>& wanted)
{
    const std::vector<Listener::Datagram>& all = listener.datagrams();
    return std::any_of(all.begin(), all.end(), wanted);
}

inline bool hearsOffer(Listener& listener, const std::string& name)
{
    return hears(listener, [&](const Listener::Datagram& datagram) { return offers(datagram, name); });
}

/// Whether the unit discovers a service that is offered to it every 10 ms.
inline bool learns(const Registry& registry, const std::string& name, Speaker& speaker, Deadline& deadline)
{
    const std::string offer = Packets::offer(name);
    std::chrono::steady_clock::time_point next = std::chrono::steady_clock::now();
    return deadline.meets([&] {
        if (std::chrono::steady_clock::now() >= next) {
            try {
                speaker.send(offer);
            }
            catch (const Poco::Exception&) {
                // The link may not be ready yet.
            }
            next += milliseconds(10);
        }
        return registry.discovered(name) != 0;
    });
}

/// Whether each of two units discovers a fresh service of the other soon.
template <class Unit, class OtherUnit>
bool meet(Unit& one, const std::string& addressOfOne, OtherUnit& other, const std::string& addressOfOther)
{
    static int number = 0;
    const std::string name = "Fresh" + std::to_string(++number);
    const std::string otherName = "Other" + name;
    Deadline deadline;
    EXPECT_TRUE(one.discovery().addService(describe(name, addressOfOne, 8080, name)));
    EXPECT_TRUE(other.discovery().addService(describe(otherName, addressOfOther, 8080, otherName)));
    const bool isTwoWay = deadline.meets(
        [&] { return one.registry().discovered(otherName) != 0 && other.registry().discovered(name) != 0; });
    one.discovery().removeService(name);
    other.discovery().removeService(otherName);
    return isTwoWay;
}

/// Unit "one" is here and unit "other" there. When a test ends, they must have released all sockets and
/// memberships.
struct InterfacesFixture : ::testing::Test
{
    InterfacesFixture()
    {
        // Makes the two ends of a link differ in index. With equal ones, the kernel may take a second to use
        // a link that has come up.
        network.there.ip("link add spare type bridge");
    }

    /// Both units, with a link between them.
    void startOnLink()
    {
        network.link("eth0", "fd00::1", "fd00::2");
        start();
        ASSERT_TRUE(meet());
    }

    void start(const std::string& addressOfOne = "fd00::1", const std::string& addressOfOther = "fd00::2")
    {
        one.emplace(network.here);
        other.emplace(network.there);
        ASSERT_TRUE(one->startup(addressOfOne));
        ASSERT_TRUE(other->startup(addressOfOther));
    }

    /// Whether both units still, or again, announce and hear.
    bool meet() { return Testing::meet(*one, "fd00::1", *other, "fd00::2"); }

    void offer(NetlinkUnit& unit, const std::string& name, const std::string& address)
    {
        ASSERT_TRUE(unit.discovery().addService(describe(name, address, 8080, name)));
    }

    /// Nothing is left of the interfaces that have gone. Waits, because a report may still be handled.
    void expectLeft(std::size_t descriptorsOpen, const std::map<std::string, unsigned>& groupUsers) const
    {
        const bool isSettled = eventually(
            [&] { return openDescriptors() == descriptorsOpen && groupUsersIn(network.here) == groupUsers; });
        EXPECT_TRUE(isSettled) << openDescriptors() << " open, " << descriptorsOpen << " before; "
                               << ::testing::PrintToString(groupUsersIn(network.here));
    }

    /// The unit at the other end of eth0 there, which announces "Media", is soon heard and hears.
    void expectAtWork(const Registry& registry) const
    {
        Deadline deadline;
        Listener listener(network.there, "eth0");
        Speaker speaker(network.there, "eth0", "fd00::2");
        EXPECT_TRUE(learns(registry, "Navi", speaker, deadline));
        EXPECT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Media"); }));
    }

    void ip(const std::string& arguments) const { network.here.ip(arguments); }

    /// Both units, of which one announces "Media". Returns when nothing else happens any more.
    void startQuietly()
    {
        network.link("eth0", "fd00::1", "fd00::2");
        start();
        Listener listener(network.there, "eth0");
        offer(*one, "Media", "fd00::1");
        ASSERT_TRUE(listener.hears(6));
    }

    /// The lines, except those about received datagrams, that are logged until the unit here has noticed all
    /// earlier changes of its interfaces.
    std::vector<std::string> logged(const LogCatcher& log) const
    {
        network.link("marker", "fd99::1");
        EXPECT_TRUE(eventually([&] {
            return log.has(
                "Notice: ServiceDiscovery adding Interface \"marker\" with IP \"fd99::1\" for sending.");
        }));
        std::vector<std::string> lines = linesAboveTrace(log);
        const auto isOther = [](const std::string& line) {
            return line.find("\"marker\"") != std::string::npos ||
                   line.rfind("Debug: run: processing ", 0) == 0;
        };
        lines.erase(std::remove_if(lines.begin(), lines.end(), isOther), lines.end());
        return lines;
    }

    void TearDown() override
    {
        one.reset();
        other.reset();
        EXPECT_THAT(groupUsersIn(network.here), ::testing::IsEmpty());
        EXPECT_THAT(groupUsersIn(network.there), ::testing::IsEmpty());
        EXPECT_EQ(openDescriptors(), descriptors);
    }

    NetworkPair network;
    std::size_t descriptors = openDescriptors();
    std::optional<NetlinkUnit> one;
    std::optional<NetlinkUnit> other;
};

}  // namespace Nubo::ServiceDiscovery::Testing
