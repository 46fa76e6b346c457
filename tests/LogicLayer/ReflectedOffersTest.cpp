#include "IntervalFixture.h"
#include "support/Times.h"

#include <Poco/Clock.h>
#include <Poco/Net/IPAddress.h>

#include <algorithm>
#include <limits>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <time.h>

namespace Nubo::ServiceDiscovery::Testing {

namespace {

constexpr unsigned short firstPort = 1000;
constexpr Poco::Clock::ClockDiff longAfterATTL = 200'000'000;  // microseconds

double threadMicroseconds()
{
    timespec time{};
    ::clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_nsec) / 1e3;
}

/// Returns the shortest of several times, in microseconds.
template <class Call>
double costOf(Call call)
{
    double least = std::numeric_limits<double>::max();
    for (int run = 0; run < 5; ++run) {
        const double begin = threadMicroseconds();
        call();
        least = std::min(least, threadMicroseconds() - begin);
    }
    return least;
}

/// A unit at fd00::1.
struct ReflectedOffersTest : UnloggedStateMachineFixture
{
    ReflectedOffersTest() { setAddress("fd00::1"); }

    /// Gives the unit an address, as a start does.
    void setAddress(const std::string& address) { engine.hub.m_sender.init(Poco::Net::IPAddress(address)); }

    static unsigned short port(int number) { return static_cast<unsigned short>(firstPort + number); }

    /// Announces that many instances of "Own" at fd00::1, at ports from 1000 on.
    void announce(int count)
    {
        for (int i = 0; i < count; ++i)
            machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own", "fd00::1", port(i)));
    }

    /// Hands the machine an offer. Returns whether it was recognised as one of the unit's own.
    bool isReflected(const std::string& name, const std::string& address, unsigned short offered)
    {
        const std::uint64_t before = machine.reflectedOffers();
        EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeService(name, address, offered)));
        return machine.reflectedOffers() == before + 1;
    }
};

/// The ports of this unit's services of a name, by workload.
struct OwnPorts
{
    std::string name;
    std::vector<int> periodic;
    std::vector<int> aperiodic;
};

/// Another unit sends back the offer of the last of `count` instances.
struct ReflectionCost : ReflectedOffersTest
{
    explicit ReflectionCost(int count)
    {
        announce(count);
        const SDService::Ptr offer = makeService("Own", "fd00::1", port(count - 1));
        ofOffers = costOf([&] {
            for (int i = 0; i < 500; ++i)
                machine.handle(Event::SOMEIP_OFFER, offer);
        });
        EXPECT_EQ(machine.reflectedOffers(), 5u * 500u);
    }
    void TestBody() override {}

    double ofOffers = 0;
};

/// The unit's address changes while it announces `count` instances and others offer as many.
struct AddressChangeCost : ReflectedOffersTest
{
    explicit AddressChangeCost(int count)
    {
        announce(count);
        for (int i = 0; i < count; ++i)
            machine.putPeriodic(makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Own", "fd00::2", port(i)));
        ofInterval = costOf([&] {
            setAddress("fd00::1");
            machine.periodicTick();
        });
    }
    void TestBody() override {}

    double ofInterval = 0;
};

}  // namespace

TEST_F(ReflectedOffersTest, AreThoseOfAnOwnNameAndPortAtTheUnitsAddress)
{
    announce(2);

    EXPECT_TRUE(isReflected("Own", "fd00::1", port(0)));
    EXPECT_TRUE(isReflected("Own", "fd00::1", port(1)));
    EXPECT_FALSE(isReflected("Own", "fd00::1", port(2)));
    EXPECT_FALSE(isReflected("Own", "fd00::2", port(0)));
    EXPECT_FALSE(isReflected("Other", "fd00::1", port(0)));
}

TEST_F(ReflectedOffersTest, AreKnownWhateverTheirProtocol)
{
    NuboServiceDescription description = describe("Own", "fd00::1", port(0));
    description.setL4Proto(OptionL4Protocol::UDP);
    SDService::Ptr own = makeService(description);
    own->setType(Type::ANNOUNCED);
    own->setState(State::MAIN_PHASE);
    machine.putPeriodic(own);

    EXPECT_TRUE(isReflected("Own", "fd00::1", port(0)));
}

TEST_F(ReflectedOffersTest, AreKnownByAnAddressThatWasAddedWithAScope)
{
    setAddress("fe80::1");
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Own", "fe80::1%lo", port(0)));

    EXPECT_TRUE(isReflected("Own", "fe80::1", port(0)));
}

TEST_F(ReflectedOffersTest, AreKnownWhileTheServiceIsInTheAperiodicWorkload)
{
    EXPECT_TRUE(machine.handle(Event::HTTP_PUT, makeService("Own", "fd00::1", port(0))));

    EXPECT_TRUE(isReflected("Own", "fd00::1", port(0)));
}

TEST_F(ReflectedOffersTest, AreNoneOfAServiceThatOnlyOthersOffer)
{
    setAddress("fd00::9");
    EXPECT_FALSE(isReflected("Foreign", "fd00::1", port(0)));
    setAddress("fd00::1");
    machine.putPeriodic(makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Foreign", "fd00::1", port(1)));

    EXPECT_TRUE(machine.handle(Event::SOMEIP_OFFER, makeService("Foreign", "fd00::1", port(0))));

    EXPECT_EQ(machine.reflectedOffers(), 0u);
}

TEST_F(ReflectedOffersTest, CostNoMoreTheMoreInstancesTheUnitHas)
{
    EXPECT_LE(ReflectionCost(3000).ofOffers, 3 * ReflectionCost(1).ofOffers);
}

TEST_F(ReflectedOffersTest, OfAllServicesEndInTheIntervalAfterAnAddressCame)
{
    setAddress("fd00::9");
    machine.periodicTick();
    const std::vector<OwnPorts> services{
        {"Both", {0}, {1}}, {"Periodic", {2, 3}, {}}, {"Aperiodic", {}, {4, 5}}};
    for (const OwnPorts& own : services) {
        for (const int number : own.periodic)
            machine.putPeriodic(
                makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, own.name, "fd00::1", port(number)));
        for (const int number : own.aperiodic)
            machine.putAperiodic(
                makeRecord(Type::ANNOUNCED, State::REPETITION_PHASE, own.name, "fd00::1", port(number)));
        machine.putAperiodic(makeRecord(Type::ANNOUNCED, State::ONCE, own.name, "fd00::1", port(6)));
        for (int i = 0; i < 7; ++i) {
            EXPECT_FALSE(isReflected(own.name, "fd00::1", port(i)));
            EXPECT_FALSE(isReflected(own.name, "fd00::2", port(i)));
        }
    }

    setAddress("fd00::1");
    machine.periodicTick();

    for (const OwnPorts& own : services) {
        EXPECT_EQ(engine.registry.gone(own.name), 2u) << own.name;
        EXPECT_EQ(machine.m_index.find(own.name)->discoveredCount, 12u) << own.name;
    }
}

TEST_F(ReflectedOffersTest, FromBeforeTheServiceWasAddedEndEvenInALateInterval)
{
    machine.periodicTick();
    const Poco::Clock last = SDClock::now();
    EXPECT_FALSE(isReflected("Own", "fd00::1", port(0)));
    EXPECT_FALSE(isReflected("Own", "fd00::1", port(1)));
    EXPECT_FALSE(isReflected("Own", "fd00::2", port(0)));
    EXPECT_FALSE(isReflected("Foreign", "fd00::2", port(0)));
    EXPECT_TRUE(machine.handle(Event::HTTP_PUT, makeService("Own", "fd00::1", port(0))));

    turnTo(last, longAfterATTL);
    machine.periodicTick();

    EXPECT_EQ(engine.registry.gone("Own"), 1u);
    EXPECT_EQ(engine.registry.gone("Foreign"), 0u);
}

TEST_F(ReflectedOffersTest, EndAtACostThatGrowsWithTheNumberOfServices)
{
    constexpr double times = 10;
    EXPECT_LE(AddressChangeCost(3000).ofInterval, 3 * times * AddressChangeCost(300).ofInterval);
}

}  // namespace Nubo::ServiceDiscovery::Testing
