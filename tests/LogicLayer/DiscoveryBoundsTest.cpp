#include "DataLayer/SDClock.h"
#include "LogicLayer/DiscoveryBounds.h"
#include "LogicLayer/Workload.h"
#include "support/OfferedRecords.h"

#include <cstddef>
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Entry = WorkloadEntry;
using Outcome = DiscoveryBounds::Outcome;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr Poco::Clock::ClockDiff millisecond = 1000;
constexpr Poco::Clock::ClockDiff stale = DiscoveryBounds::staleAfter;
constexpr Poco::Clock::ClockDiff notYetStale = stale - 100 * millisecond;

constexpr std::size_t megabyte = std::size_t{1024} * 1024;

/// Limited resources. Each record below takes one unit of the row's resource, and next to nothing of the
/// others.
enum class Resource
{
    Places,
    PlacesOfAName,
    Megabytes
};

struct ResourceCase
{
    const char* name;
    Resource resource;
    std::size_t limit;
    Outcome whenFull;

    friend void PrintTo(const ResourceCase& row, std::ostream* stream) { *stream << row.name; }
};

struct DiscoveryBoundsTest : ::testing::TestWithParam<ResourceCase>
{
    static std::size_t limit() { return GetParam().limit; }

    SDService::Ptr makeOne(std::uint32_t sender)
    {
        switch (GetParam().resource) {
            case Resource::Places:
                return makeDiscovered("Service" + std::to_string(++m_last), 1, sender);
            case Resource::PlacesOfAName:
                return makeDiscovered("Media", nextPort(), sender);
            case Resource::Megabytes:
                return withText(makeDiscovered("Service", nextPort(), sender), megabyte);
        }
        return nullptr;
    }

    Entry& know(std::uint32_t sender) { return periodic.push_back(makeOne(sender)); }

    /// Makes `count` more services of that unit known.
    void know(std::uint32_t sender, std::size_t count)
    {
        SDService::Ptr one;
        for (std::size_t i = 0; i < count; ++i) {
            // New names take time, and places are limited per name, too: many entries share one record.
            if (GetParam().resource != Resource::Places || i % 512 == 0)
                one = makeOne(sender);
            periodic.push_back(one);
        }
    }

    DiscoveryBounds::Verdict judge(const SDService::Ptr& offered, bool isSearchedFor = false)
    {
        const std::string& name = offered->getNuboDescription().getName();
        return DiscoveryBounds::judge(index, index.find(name), *offered, isSearchedFor, listeningSince);
    }
    Outcome outcome(std::uint32_t sender, bool isSearchedFor = false)
    {
        return judge(makeOne(sender), isSearchedFor).outcome;
    }
    std::vector<Entry*> displaced(std::uint32_t sender) { return judge(makeOne(sender)).displaced; }

    static void age(Entry& entry, Poco::Clock::ClockDiff age) { entry.renewed = SDClock::now() - age; }

    RecordIndex index;
    PeriodicWorkload periodic{index};
    Poco::Clock listeningSince{Poco::Clock::ClockVal{0}};

private:
    unsigned short nextPort() { return static_cast<unsigned short>(++m_last); }

    std::size_t m_last = 0;
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(
    Resources, DiscoveryBoundsTest,
    ::testing::Values(ResourceCase{"Places", Resource::Places, 131072, Outcome::Refused},
                      ResourceCase{"PlacesOfAName", Resource::PlacesOfAName, 4096, Outcome::RefusedOfName},
                      ResourceCase{"Megabytes", Resource::Megabytes, 64, Outcome::Refused}),
    [](const auto& row) { return row.param.name; });

TEST_P(DiscoveryBoundsTest, UnitIsGivenWhatIsFreeWhileItHasLess)
{
    know(1, limit() / 2 - 1);
    EXPECT_EQ(outcome(1), Outcome::Taken);
    know(1);
    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender);

    EXPECT_EQ(outcome(2), Outcome::Taken);
    know(2, limit() / 4 - 1);
    EXPECT_EQ(outcome(2), Outcome::Taken);
    know(2);
    EXPECT_EQ(outcome(2), Outcome::RefusedOfSender);
    EXPECT_EQ(outcome(3), Outcome::Taken);
}

TEST_P(DiscoveryBoundsTest, UnknownUnitHasNoShare)
{
    know(0, limit() - 1);
    EXPECT_EQ(outcome(0), Outcome::Taken);

    know(0);
    EXPECT_EQ(outcome(0), GetParam().whenFull);
}

TEST_P(DiscoveryBoundsTest, ServiceThatIsSearchedForKeepsToNoShare)
{
    know(1, limit() - 1);

    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender);
    EXPECT_EQ(outcome(1, true), Outcome::Taken);
    know(1);
    EXPECT_EQ(outcome(1, true), GetParam().whenFull);
    age(periodic.front(), stale);
    EXPECT_EQ(outcome(1, true), Outcome::Taken);
}

TEST_P(DiscoveryBoundsTest, NothingIsDisplacedWhileThereIsRoom)
{
    age(know(2), stale);
    know(1, limit() / 2 - 2);

    const auto verdict = judge(makeOne(1));

    EXPECT_EQ(verdict.outcome, Outcome::Taken);
    EXPECT_THAT(verdict.displaced, IsEmpty());
}

TEST_P(DiscoveryBoundsTest, WhatHasGoneTenSecondsWithoutAnOfferIsDisplacedWhenAllIsTaken)
{
    Entry& stalest = know(1);
    know(1, limit() - 1);

    age(stalest, notYetStale);
    EXPECT_EQ(outcome(2), GetParam().whenFull);
    age(stalest, stale);
    EXPECT_EQ(outcome(2), Outcome::Taken);
    EXPECT_THAT(displaced(2), ElementsAre(&stalest));
    EXPECT_THAT(displaced(0), ElementsAre(&stalest)) << "by the service of an unknown unit too";
}

TEST_P(DiscoveryBoundsTest, OneThatWasOfferedAgainIsNotTheStalest)
{
    Entry& renewed = know(1);
    Entry& other = know(1);
    know(1, limit() - 2);
    index.renew(renewed);
    age(other, stale);

    EXPECT_THAT(displaced(2), ElementsAre(&other));
    age(other, notYetStale);
    EXPECT_EQ(outcome(2), GetParam().whenFull);
}

TEST_P(DiscoveryBoundsTest, UnitThatHasItsShareDisplacesItsOwn)
{
    Entry& own = know(1);
    know(1, limit() / 2 - 1);

    age(own, notYetStale);
    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender);
    age(own, stale);
    EXPECT_THAT(displaced(1), ElementsAre(&own));
}

TEST_P(DiscoveryBoundsTest, UnitThatHasItsShareDisplacesNoneOfAUnitThatHasAsManyOrFewer)
{
    Entry& stalest = know(2);
    know(2, limit() * 3 / 8 - 1);
    know(1, limit() * 3 / 8);
    age(stalest, stale);

    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender);
    know(2);
    EXPECT_THAT(displaced(1), ElementsAre(&stalest)) << "now the other one has more";
}

TEST_P(DiscoveryBoundsTest, UnitWithoutAShareIsNotAUnitThatHasMore)
{
    Entry& stalest = know(0);
    know(0, limit() / 4);
    know(1, limit() / 2 - limit() / 8);
    age(stalest, stale);

    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender);
}

TEST_P(DiscoveryBoundsTest, FewFreePlacesBehindAStaleOneOfASmallUnitKeepNobodyOut)
{
    Entry& stalest = know(3);
    know(2);
    know(1, limit() - 3);
    age(stalest, stale);

    EXPECT_THAT(displaced(2), ElementsAre(&stalest)) << "it has one, as many as there are free places";
}

TEST_P(DiscoveryBoundsTest, OneIsDisplacedForEachHoweverManyTheUnitHas)
{
    for (std::uint32_t sender = 100; sender < 120; ++sender)
        age(know(sender), stale);
    know(1, limit() - 30);
    know(2, 10);

    EXPECT_THAT(displaced(2), ElementsAre(index.stalest()));
}

TEST_P(DiscoveryBoundsTest, LessThanAnEighthOfFreePlacesIsNearlyNone)
{
    Entry& stalest = know(2);
    know(1, limit() * 7 / 16 - 1);
    know(3, limit() * 7 / 16);
    age(stalest, stale);

    EXPECT_EQ(outcome(1), Outcome::RefusedOfSender) << "an eighth is free";
    know(4);
    EXPECT_THAT(displaced(1), ElementsAre(&stalest));
}

TEST_P(DiscoveryBoundsTest, OwnServicesTakeNothing)
{
    for (std::size_t i = 0; i < limit(); ++i) {
        SDService::Ptr own = makeOne(1);
        own->setType(SDService::Type::ANNOUNCED);
        own->setInstanceId(static_cast<unsigned short>(i));
        periodic.push_back(own);
    }

    EXPECT_EQ(outcome(1), Outcome::Taken);
    know(1, limit() / 2 - 1);
    EXPECT_EQ(outcome(1), Outcome::Taken);
}

namespace {

struct DiscoveryBoundsTogetherTest : ::testing::Test
{
    Entry& know(const SDService::Ptr& record) { return periodic.push_back(record); }

    void know(const SDService::Ptr& record, std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            periodic.push_back(record);
    }
    /// Makes `count` services known, whose names do not matter.
    void knowOthers(std::size_t count)
    {
        SDService::Ptr one;
        for (std::size_t i = 0; i < count; ++i) {
            if (i % 512 == 0)
                one = makeDiscovered("Other" + std::to_string(i));
            periodic.push_back(one);
        }
    }

    DiscoveryBounds::Verdict judge(const SDService::Ptr& offered)
    {
        const std::string& name = offered->getNuboDescription().getName();
        return DiscoveryBounds::judge(index, index.find(name), *offered, false, listeningSince);
    }

    /// Makes all records that much older.
    static void pass(Poco::Clock::ClockDiff time) { SDClock::turn(time); }

    RecordIndex index;
    PeriodicWorkload periodic{index};
    Poco::Clock listeningSince{Poco::Clock::ClockVal{0}};
};

}  // namespace

TEST_F(DiscoveryBoundsTogetherTest, NameThatIsFullDisplacesItsOwnStalestInstance)
{
    know(makeDiscovered("Navi"));
    Entry& stalest = know(makeDiscovered("Media"));
    know(makeDiscovered("Media"), 4095);
    pass(stale);

    EXPECT_THAT(judge(makeOffer("Media", 1, 2)).displaced, ElementsAre(&stalest));
    EXPECT_THAT(judge(makeOffer("Radio", 1, 2)).displaced, IsEmpty());
}

TEST_F(DiscoveryBoundsTogetherTest, PlaceThatAnInstanceOfTheNameGivesUpServesForBoth)
{
    know(makeDiscovered("Navi"));
    Entry& stalest = know(makeDiscovered("Media"));
    know(makeDiscovered("Media"), 4095);
    knowOthers(131072 - 4097);
    pass(stale);

    EXPECT_THAT(judge(makeOffer("Media", 1, 2)).displaced, ElementsAre(&stalest));
    EXPECT_THAT(judge(makeOffer("Radio", 1, 2)).displaced, ElementsAre(&periodic.front()));
}

TEST_F(DiscoveryBoundsTogetherTest, LongTextDisplacesAsManyAsItTakes)
{
    Entry& first = know(withText(makeDiscovered("Service", 1), megabyte));
    Entry& second = know(withText(makeDiscovered("Service", 2), megabyte));
    know(withText(makeDiscovered("Service", 3), 62 * megabyte));
    pass(stale);

    EXPECT_THAT(judge(withText(makeOffer("New", 1, 2), megabyte)).displaced, ElementsAre(&first));
    EXPECT_THAT(judge(withText(makeOffer("New", 1, 2), megabyte + 1)).displaced,
                ElementsAre(&first, &second));
}

TEST_F(DiscoveryBoundsTogetherTest, InstanceThatGoesForTheNameIsNotCountedTwiceForTheText)
{
    Entry& other = know(withText(makeDiscovered("Service", 1), megabyte));
    Entry& instance = know(withText(makeDiscovered("Media", 1), megabyte));
    know(makeDiscovered("Media"), 4095);
    know(withText(makeDiscovered("Service", 2), 61 * megabyte));
    pass(stale);

    EXPECT_THAT(judge(withText(makeOffer("Media", 2, 2), 2 * megabyte)).displaced,
                ElementsAre(&instance, &other));
}

TEST_F(DiscoveryBoundsTogetherTest, InstanceThatGoesForTheNameGoesOnceThoughItIsTheStalestOfAll)
{
    Entry& instance = know(withText(makeDiscovered("Media", 1), megabyte));
    Entry& other = know(withText(makeDiscovered("Service", 1), megabyte));
    know(makeDiscovered("Media"), 4095);
    know(withText(makeDiscovered("Service", 2), 61 * megabyte));
    pass(stale);

    EXPECT_THAT(judge(withText(makeOffer("Media", 2, 2), 2 * megabyte)).displaced,
                ElementsAre(&instance, &other));
}

TEST_F(DiscoveryBoundsTogetherTest, NameWhoseInstancesAreOfferedAgainAndAgainDisplacesNone)
{
    know(makeDiscovered("Media"), 4096);
    pass(stale);
    for (Entry& entry : periodic)
        index.renew(entry);

    const auto verdict = judge(makeOffer("Media", 1, 2));

    EXPECT_EQ(verdict.outcome, Outcome::RefusedOfName);
    EXPECT_THAT(verdict.displaced, IsEmpty());
}

TEST_F(DiscoveryBoundsTogetherTest, AtMostFourAreDisplacedHoweverLongTheText)
{
    constexpr std::size_t kilobytes = 4;
    for (std::size_t i = 0; i < kilobytes + 2; ++i)
        know(withText(makeDiscovered("Service", static_cast<unsigned short>(i)), 1024));
    know(withText(makeDiscovered("Large", 2), 64 * megabyte - (kilobytes + 2) * 1024));
    pass(stale);

    EXPECT_THAT(judge(withText(makeOffer("New", 1, 2), kilobytes * 1024)).displaced, SizeIs(4));
    const auto verdict = judge(withText(makeOffer("New", 1, 2), kilobytes * 1024 + 1));
    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_THAT(verdict.displaced, SizeIs(4)) << "so that there is room when it is offered again";
}

TEST_F(DiscoveryBoundsTogetherTest, TimeBeforeThePauseInWhichNothingWasHeardMakesNothingStale)
{
    Entry& stalest = know(makeDiscovered("Media"));
    know(makeDiscovered("Media"), 4095);
    pass(stale);
    listeningSince = SDClock::now();

    pass(stale - 1000000);
    EXPECT_THAT(judge(makeOffer("Media", 1, 2)).displaced, IsEmpty());

    pass(1000000);
    EXPECT_THAT(judge(makeOffer("Media", 1, 2)).displaced, ElementsAre(&stalest));
}

TEST_F(DiscoveryBoundsTogetherTest, TextBeyondAllBoundsDisplacesNothing)
{
    know(withText(makeDiscovered("Service", 1), megabyte));
    pass(stale);

    const auto verdict = judge(withText(makeOffer("New", 1, 2), 65 * megabyte));

    EXPECT_EQ(verdict.outcome, Outcome::Refused);
    EXPECT_THAT(verdict.displaced, IsEmpty());
}

TEST_F(DiscoveryBoundsTogetherTest, UnitWithItsShareOfTheTextDisplacesNoneOfAUnitThatHasLessOfIt)
{
    know(makeDiscovered("Other", 1, 2));
    know(makeDiscovered("Other", 2, 2));
    know(withText(makeDiscovered("Service", 1, 1), 32 * megabyte));
    pass(stale);

    const auto verdict = judge(withText(makeOffer("New", 1, 1), megabyte));

    EXPECT_EQ(verdict.outcome, Outcome::RefusedOfSender);
    EXPECT_THAT(verdict.displaced, IsEmpty()) << "though it has more services";
}

TEST_F(DiscoveryBoundsTogetherTest, UnitWithItsShareOfTheTextDisplacesOneOfAUnitThatHasMoreOfIt)
{
    Entry& large = know(withText(makeDiscovered("Large", 1, 2), 30 * megabyte));
    know(withText(makeDiscovered("Service", 1, 1), 10 * megabyte));
    know(withText(makeDiscovered("Service", 2, 1), 10 * megabyte));
    pass(stale);

    EXPECT_THAT(judge(withText(makeOffer("New", 1, 1), megabyte)).displaced, ElementsAre(&large))
        << "though it has fewer services";
}

TEST_F(DiscoveryBoundsTogetherTest, UnitWithItsShareOfTheTextDisplacesAsManyOfItsOwnAsTheNewOneTakes)
{
    Entry& first = know(withText(makeDiscovered("Service", 1, 1), megabyte));
    Entry& second = know(withText(makeDiscovered("Service", 2, 1), megabyte));
    pass(stale);
    know(withText(makeDiscovered("Service", 3, 1), 30 * megabyte));

    EXPECT_THAT(judge(withText(makeOffer("New", 1, 1), 2 * megabyte)).displaced, ElementsAre(&first));
    EXPECT_THAT(judge(withText(makeOffer("New", 1, 1), 3 * megabyte)).displaced,
                ElementsAre(&first, &second));
}

/// The registry's identifier is added after a service has been taken, and its length is not judged.
TEST_F(DiscoveryBoundsTogetherTest, TextThatHasGrownBeyondItsBoundLeavesNoRoom)
{
    know(withText(makeDiscovered("Service", 1), 64 * megabyte - 1024));
    Entry& last = know(makeDiscovered("Service", 2));
    index.identify(last, std::string(megabyte, 'i'));
    ASSERT_GT(index.discoveredText(), DiscoveryBounds::mostText);

    EXPECT_EQ(judge(makeOffer("New", 1, 2)).outcome, Outcome::Refused);
    EXPECT_EQ(judge(makeOffer("New", 1, 0)).outcome, Outcome::Refused) << "of an unknown unit";
}

TEST_F(DiscoveryBoundsTogetherTest, RefusalForTheNameIsToldFromTheOthers)
{
    know(makeDiscovered("Media"), 4096);

    EXPECT_EQ(judge(makeOffer("Media", 1, 2)).outcome, Outcome::RefusedOfName);
    knowOthers(131072 - 4096);
    EXPECT_EQ(judge(makeOffer("Media", 1, 2)).outcome, Outcome::RefusedOfName);
    EXPECT_EQ(judge(makeOffer("Radio", 1, 2)).outcome, Outcome::Refused);
}

}  // namespace Nubo::ServiceDiscovery::Testing
