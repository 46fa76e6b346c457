#include "DataLayer/SDClock.h"
#include "LogicLayer/Workload.h"
#include "support/Descriptions.h"
#include "support/OfferedRecords.h"

#include <Poco/Exception.h>

#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Entry = WorkloadEntry;
using State = SDService::State;
using Type = SDService::Type;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

struct WorkloadTest : ::testing::Test
{
    static SDService::Ptr own(const std::string& name)
    {
        return makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, name);
    }

    static std::string nameOf(const SDService::Ptr& record)
    {
        return record.isNull() ? "nullptr" : record->getNuboDescription().getName();
    }

    std::vector<std::string> inPeriodic() const
    {
        std::vector<std::string> names;
        for (const Entry& entry : periodic)
            names.push_back(nameOf(entry));
        return names;
    }

    std::vector<std::string> inAperiodic() const
    {
        std::vector<std::string> names;
        for (const auto& [due, entry] : aperiodic)
            names.push_back(nameOf(entry));
        return names;
    }

    Entry& find(const std::string& name, Entry::Workload workload = Entry::Workload::Periodic)
    {
        return *index.findAll(ServiceIdentity(*makeService(name)), workload).at(0);
    }

    /// The remaining records of a walk over the periodic workload, or over its local records.
    std::vector<std::string> walkOn()
    {
        std::vector<std::string> names;
        while (const Entry* const entry = periodic.walk())
            names.push_back(nameOf(*entry));
        return names;
    }
    std::vector<std::string> walkLocalsOn()
    {
        std::vector<std::string> names;
        while (const Entry* const entry = periodic.walkLocals())
            names.push_back(nameOf(*entry));
        return names;
    }

    RecordIndex index;
    AperiodicWorkload aperiodic{index};
    PeriodicWorkload periodic{index};
};

}  // namespace

TEST_F(WorkloadTest, PeriodicRecordsAreInTheOrderOfInsertion)
{
    periodic.push_back(own("A"));
    periodic.push_back(makeDiscovered("B"));
    periodic.push_back(own("C"));

    EXPECT_THAT(inPeriodic(), ElementsAre("A", "B", "C"));
    EXPECT_EQ(nameOf(periodic.front()), "A");
    EXPECT_EQ(nameOf(periodic.back()), "C");
    EXPECT_EQ(periodic.size(), 3u);
    EXPECT_EQ(periodic.localCount(), 2u);
}

TEST_F(WorkloadTest, ErasureOfAPeriodicRecordYieldsTheNextOne)
{
    periodic.push_back(own("A"));
    periodic.push_back(makeDiscovered("B"));

    const auto next = periodic.erase(periodic.begin());

    EXPECT_EQ(nameOf(*next), "B");
    EXPECT_EQ(periodic.erase(next), periodic.end());
    EXPECT_TRUE(periodic.empty());
    EXPECT_EQ(periodic.localCount(), 0u);
    EXPECT_EQ(index.size(), 0u);
}

TEST_F(WorkloadTest, AperiodicRecordsAreInTheOrderOfTheirTimesAndThenOfInsertion)
{
    const Poco::Clock now = SDClock::now();
    aperiodic.emplace(now + 2, own("D"));
    aperiodic.emplace(now, own("A"));
    aperiodic.emplace(now + 1, own("B"));
    aperiodic.emplace(now + 1, own("C"));

    EXPECT_THAT(inAperiodic(), ElementsAre("A", "B", "C", "D"));
}

TEST_F(WorkloadTest, RecordThatIsGivenAnotherTimeComesAfterThoseOfThatTime)
{
    const Poco::Clock now = SDClock::now();
    for (const char* name : {"A", "B", "C"})
        aperiodic.emplace(now, own(name));
    aperiodic.emplace(now + 1, own("D"));

    aperiodic.reschedule(find("A", Entry::Workload::Aperiodic), now);
    EXPECT_THAT(inAperiodic(), ElementsAre("B", "C", "A", "D"));
    aperiodic.reschedule(find("B", Entry::Workload::Aperiodic), now + 1);
    EXPECT_THAT(inAperiodic(), ElementsAre("C", "A", "D", "B"));
    aperiodic.erase(find("A", Entry::Workload::Aperiodic));
    aperiodic.reschedule(find("B", Entry::Workload::Aperiodic), now - 1);
    EXPECT_THAT(inAperiodic(), ElementsAre("B", "C", "D"));
}

TEST_F(WorkloadTest, OnlyTheVeryRecordIsErased)
{
    const SDService::Ptr record = own("A");
    const SDService::Ptr equal = own("A");
    periodic.push_back(equal);
    aperiodic.emplace(SDClock::now(), record);

    EXPECT_FALSE(periodic.erase(record));
    EXPECT_FALSE(aperiodic.erase(equal));
    EXPECT_FALSE(periodic.erase(SDService::Ptr()));
    EXPECT_TRUE(periodic.erase(equal));
    EXPECT_TRUE(aperiodic.erase(record));
    EXPECT_FALSE(aperiodic.erase(record));
    EXPECT_EQ(index.size(), 0u);
}

TEST_F(WorkloadTest, RecordCanBeInBothWorkloads)
{
    const SDService::Ptr record = own("A");
    periodic.push_back(record);
    aperiodic.emplace(SDClock::now(), record);

    EXPECT_TRUE(aperiodic.erase(record));

    EXPECT_THAT(inPeriodic(), ElementsAre("A"));
    EXPECT_EQ(find("A"), record);
}

TEST_F(WorkloadTest, NullRecordsHaveAPlaceButNothingCanBeLookedUpMeanwhile)
{
    periodic.push_back(nullptr);
    periodic.push_back(own("A"));

    EXPECT_THAT(inPeriodic(), ElementsAre("nullptr", "A"));
    EXPECT_EQ(periodic.localCount(), 2u);
    EXPECT_THROW(index.find("A"), Poco::NullPointerException);
    EXPECT_THROW(index.findUuid("id", Entry::Workload::Periodic), Poco::NullPointerException);

    periodic.erase(periodic.begin());
    aperiodic.emplace(SDClock::now(), nullptr);
    EXPECT_THROW(index.find("A"), Poco::NullPointerException);

    aperiodic.erase(aperiodic.begin());
    EXPECT_NE(index.find("A"), nullptr);
}

TEST_F(WorkloadTest, ClearedWorkloadsLeaveNothingInTheIndex)
{
    periodic.push_back(own("A"));
    periodic.push_back(nullptr);
    periodic.push_back(makeDiscovered("A"));
    aperiodic.emplace(SDClock::now(), makeRecord(Type::ANNOUNCED, State::ONCE, "A"));

    periodic.clear();
    EXPECT_EQ(index.size(), 1u);
    EXPECT_EQ(index.discovered(), 0u);
    aperiodic.clear();

    EXPECT_EQ(index.size(), 0u);
    EXPECT_EQ(index.answers(), 0u);
    EXPECT_EQ(index.find("A"), nullptr);
}

TEST_F(WorkloadTest, WalkGoesOverAllRecordsAndTheOneOverLocalOnesLeavesOutTheDiscovered)
{
    periodic.push_back(own("A"));
    periodic.push_back(makeDiscovered("B"));
    periodic.push_back(nullptr);
    periodic.push_back(makeRecord(Type::WANTED, State::MAIN_PHASE, "C"));

    EXPECT_FALSE(periodic.isWalking());
    periodic.startWalk();
    EXPECT_TRUE(periodic.isWalking());
    EXPECT_THAT(walkOn(), ElementsAre("A", "B", "nullptr", "C"));
    EXPECT_FALSE(periodic.isWalking());
    EXPECT_THAT(walkOn(), IsEmpty()) << "until it is started again";
    periodic.startLocalWalk();
    EXPECT_THAT(walkLocalsOn(), ElementsAre("A", "nullptr", "C"));
}

TEST_F(WorkloadTest, WalksOverNothingAreOverAtOnce)
{
    periodic.startWalk();
    periodic.startLocalWalk();

    EXPECT_FALSE(periodic.isWalking());
    EXPECT_EQ(periodic.walk(), nullptr);
    EXPECT_EQ(periodic.walkLocals(), nullptr);
}

TEST_F(WorkloadTest, WalksGoOnWhenTheRecordTheyAreAtIsErased)
{
    for (const char* name : {"A", "B", "C"})
        periodic.push_back(own(name));
    periodic.startWalk();
    periodic.startLocalWalk();

    periodic.erase(*periodic.walk());
    EXPECT_EQ(nameOf(*periodic.walk()), "B");
    EXPECT_EQ(nameOf(*periodic.walkLocals()), "B") << "the other walk has not come to the erased one";
    periodic.erase(find("B"));

    EXPECT_THAT(walkOn(), ElementsAre("C"));
    EXPECT_THAT(walkLocalsOn(), ElementsAre("C"));
}

TEST_F(WorkloadTest, WalksGoOnWhenTheRecordsBeforeThemAreErased)
{
    for (const char* name : {"A", "B", "C", "D"})
        periodic.push_back(own(name));
    periodic.startWalk();
    periodic.startLocalWalk();
    periodic.walk();
    periodic.walkLocals();

    periodic.erase(find("B"));
    periodic.erase(find("C"));

    EXPECT_THAT(walkOn(), ElementsAre("D"));
    EXPECT_THAT(walkLocalsOn(), ElementsAre("D"));
}

TEST_F(WorkloadTest, WalksEndWhenAllThatIsLeftIsErased)
{
    for (const char* name : {"A", "B"})
        periodic.push_back(own(name));
    periodic.startWalk();
    periodic.startLocalWalk();
    periodic.walk();
    periodic.walkLocals();

    periodic.erase(find("B"));

    EXPECT_FALSE(periodic.isWalking());
    EXPECT_THAT(walkOn(), IsEmpty());
    EXPECT_THAT(walkLocalsOn(), IsEmpty());
}

TEST_F(WorkloadTest, WalksReachWhatIsInsertedBeforeTheyEnd)
{
    periodic.push_back(own("A"));
    periodic.push_back(own("B"));
    periodic.startWalk();
    periodic.startLocalWalk();
    periodic.walk();
    periodic.walkLocals();

    periodic.push_back(own("C"));
    periodic.push_back(makeDiscovered("D"));

    EXPECT_THAT(walkOn(), ElementsAre("B", "C", "D"));
    EXPECT_THAT(walkLocalsOn(), ElementsAre("B", "C"));
}

TEST_F(WorkloadTest, LocalWalkIsNotDisturbedByDiscoveredRecordsThatGo)
{
    periodic.push_back(own("A"));
    periodic.push_back(makeDiscovered("B"));
    periodic.push_back(own("C"));
    periodic.startLocalWalk();
    periodic.walkLocals();

    periodic.erase(find("B"));

    EXPECT_THAT(walkLocalsOn(), ElementsAre("C"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
