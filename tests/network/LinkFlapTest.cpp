#include "InterfacesFixture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <optional>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::Values;

namespace {

using FlappingInterfacesTest = InterfacesFixture;

const std::string hereDown = "ip -n here link set eth0 down;";
const std::string hereUp = "ip -n here link set eth0 up;";
const std::string thereDown = "ip -n there link set eth0 down;";
const std::string thereUp = "ip -n there link set eth0 up;";
const std::string addressGoes = "ip -n here address delete fd00::1/64 dev eth0;";
const std::string addressComes = "ip -n here address add fd00::1/64 dev eth0 nodad;";

/// A way for a link to go down and come up again, repeated `times` times.
struct Flap
{
    std::string name;
    std::string down;  ///< shell commands
    std::string up;
    int times;
    bool underTraffic = false;

    friend std::ostream& operator<<(std::ostream& stream, const Flap& row) { return stream << row.name; }
};

constexpr auto rowName = [](const auto& row) { return row.param.name; };

struct LinkFlapTest : InterfacesFixture, ::testing::WithParamInterface<Flap>
{
    /// Makes each unit announce services that the other one must know all the time.
    void startTraffic()
    {
        for (int i = 0; i < services; ++i) {
            offer(*one, "Here" + std::to_string(i), "fd00::1");
            offer(*other, "There" + std::to_string(i), "fd00::2");
        }
        ASSERT_TRUE(eventually([&] { return knowsEachService(); }));
    }

    /// Whether each service was discovered once and none is gone.
    bool knowsEachService() const
    {
        for (int i = 0; i < services; ++i) {
            const std::string here = "Here" + std::to_string(i);
            const std::string there = "There" + std::to_string(i);
            if (one->registry().discovered(there) != 1 || one->registry().gone(there) != 0 ||
                other->registry().discovered(here) != 1 || other->registry().gone(here) != 0)
                return false;
        }
        return true;
    }

    static constexpr int services = 20;
};

/// Writes median and maximum into the test's XML report.
void record(const std::string& what, std::vector<milliseconds> times)
{
    ASSERT_FALSE(times.empty());
    std::sort(times.begin(), times.end());
    ::testing::Test::RecordProperty(what + "MedianMs", std::to_string(times[times.size() / 2].count()));
    ::testing::Test::RecordProperty(what + "WorstMs", std::to_string(times.back().count()));
}

/// While it exists, two interfaces go down and up all the time. One process does all of it, because a new
/// process would hold every descriptor for a moment.
class Flapping
{
public:
    Flapping(const Namespace& network, const std::string& interface, const std::string& otherInterface)
        : m_process(::popen(("ip -n " + network.name() + " -batch -").c_str(), "w"))
        , m_thread([=] {
            for (int i = 0; !m_isOver; ++i) {
                const std::string& link = i % 2 == 0 ? interface : otherInterface;
                std::fputs(("link set " + link + " down\nlink set " + link + " up\n").c_str(), m_process);
                std::fflush(m_process);
                std::this_thread::sleep_for(milliseconds(1));
            }
        })
    {}
    ~Flapping()
    {
        m_isOver = true;
        m_thread.join();
        ::pclose(m_process);
    }

    Flapping(const Flapping&) = delete;
    Flapping& operator=(const Flapping&) = delete;

private:
    std::FILE* const m_process;
    std::atomic<bool> m_isOver{false};
    std::thread m_thread;
};

}  // namespace

TEST_P(LinkFlapTest, UnitAnnouncesAndHearsAgainEachTime)
{
    const Flap& flap = GetParam();
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.there.setIPv6("default/keep_addr_on_down", "1");
    startOnLink();
    offer(*one, "Standing", "fd00::1");
    if (flap.underTraffic)
        startTraffic();
    Listener listener(network.there, "eth0");
    Speaker speaker(network.there, "eth0", "fd00::2");
    const std::size_t descriptorsBefore = openDescriptors();
    std::vector<milliseconds> hearing;
    std::vector<milliseconds> announcing;
    std::vector<milliseconds> repeating;

    for (int i = 1; i <= flap.times; ++i) {
        const std::string ours = "Ours" + std::to_string(i);
        const std::string theirs = "Theirs" + std::to_string(i);
        shell(flap.down);
        shell(flap.up);
        Deadline deadline;
        listener.clear();

        offer(*one, ours, "fd00::1");
        ASSERT_TRUE(learns(one->registry(), theirs, speaker, deadline)) << i;
        hearing.push_back(deadline.passed());
        ASSERT_TRUE(deadline.meets([&] { return hearsOffer(listener, ours); })) << i;
        announcing.push_back(deadline.passed());
        if (i % 10 == 0) {
            ASSERT_TRUE(deadline.meets([&] { return hearsOffer(listener, "Standing"); })) << i;
            repeating.push_back(deadline.passed());
        }
        one->discovery().removeService(ours);
    }

    expectLeft(descriptorsBefore, {{"eth0", 1}});
    EXPECT_TRUE(!flap.underTraffic || knowsEachService());
    record("hearing", hearing);
    record("announcing", announcing);
    record("repeating", repeating);
}

INSTANTIATE_TEST_SUITE_P(
    Ways, LinkFlapTest,
    Values(Flap{"AddressesStay", hereDown, hereUp, 200},
           Flap{"AddressesStayUnderTraffic", hereDown, hereUp, 200, true},
           Flap{"AddressesComeLater", addressGoes + hereDown, hereUp + addressComes, 100},
           Flap{"AddressesComeLaterUnderTraffic", addressGoes + hereDown, hereUp + addressComes, 100, true},
           Flap{"CarrierComesLater", hereDown + thereDown, hereUp + thereUp, 50},
           Flap{"OtherEndGoesAndComes", thereDown, thereUp, 50},
           Flap{"AtOnce", "", "printf 'link set eth0 %s\n' down up | ip -n here -batch -", 100}),
    rowName);

TEST_F(FlappingInterfacesTest, InterfacesMayComeAndGoWhileUnitsStartAndStop)
{
    network.here.setIPv6("default/keep_addr_on_down", "1");
    network.link("eth0", "fd00::1", "fd00::2");
    network.link("eth1", "fd01::1", "fd01::2");
    auto flapping = std::make_optional<Flapping>(network.here, "eth0", "eth1");

    for (int i = 0; i < 50; ++i) {
        one.emplace(network.here);
        ASSERT_TRUE(one->startup("fd00::1"));
        offer(*one, "Media", "fd00::1");
        one->shutdown();
        ASSERT_TRUE(one->startup("fd00::1"));
    }
    flapping.reset();

    one.reset();
    EXPECT_EQ(openDescriptors(), descriptors);
    start();
    EXPECT_TRUE(eventually([&] { return groupUsersIn(network.here).size() == 2; }));
    EXPECT_TRUE(meet());
}

}  // namespace Nubo::ServiceDiscovery::Testing
