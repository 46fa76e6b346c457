#include "DataLayer/SDClock.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/RecordingHub.h"
#include "support/TestStateMachine.h"

#include <Poco/Exception.h>

#include <ostream>
#include <random>
#include <sstream>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using State = SDService::State;
using Type = SDService::Type;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// The record with which every identity below is compared.
SDService::Ptr makeMedia()
{
    SDService::Ptr record = makeRecord(Type::DISCOVERED, State::MAIN_PHASE, "Media", "fd00::2", 8080);
    record->setServiceId(0x1234);
    record->setInstanceId(3);
    record->setMajorVersion(1);
    record->setMinorVersion(2);
    return record;
}

SDService::Ptr makeInstance(unsigned short instanceID)
{
    SDService::Ptr record = makeService("Media");
    record->setInstanceId(instanceID);
    return record;
}

ServiceIdentity named(const std::string& name)
{
    ServiceIdentity identity;
    identity.name = name;
    return identity;
}

struct MatchingCase
{
    const char* name;
    bool matches;
    void (*narrow)(ServiceIdentity&);

    friend void PrintTo(const MatchingCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDStateMachineMatchingTest : ::testing::TestWithParam<MatchingCase>
{};

struct SDStateMachineLookupTest : ::testing::Test
{
    EngineFixture engine;
    TestStateMachine machine{engine.hub};
    ServicesContainer found;
};

}  // namespace

TEST_P(SDStateMachineMatchingTest, IdentityIsHeldAgainstARecord)
{
    ServiceIdentity identity;
    GetParam().narrow(identity);

    EXPECT_EQ(SDStateMachine::doesServiceMatch(identity, makeMedia()), GetParam().matches);
}

INSTANTIATE_TEST_SUITE_P(Fields, SDStateMachineMatchingTest,
                         ::testing::Values(MatchingCase{"AllWildcardsMatch", true, [](ServiceIdentity&) {}},
                                           MatchingCase{
                                               "SameTypeMatches", true,
                                               [](ServiceIdentity& i) { i.type = Type::DISCOVERED; }},
                                           MatchingCase{"OtherTypeDoesNot", false,
                                                        [](ServiceIdentity& i) { i.type = Type::ANNOUNCED; }},
                                           MatchingCase{"SameServiceIDMatches", true,
                                                        [](ServiceIdentity& i) { i.serviceID = 0x1234; }},
                                           MatchingCase{"OtherServiceIDDoesNot", false,
                                                        [](ServiceIdentity& i) { i.serviceID = 0x1235; }},
                                           MatchingCase{"ByNameMatchesWhateverTheServiceID", true,
                                                        [](ServiceIdentity& i) {
                                                            i.serviceID = 0xfffe;
                                                            i.name = "Media";
                                                        }},
                                           MatchingCase{"ByNameWithoutANameMatchesNothing", false,
                                                        [](ServiceIdentity& i) { i.serviceID = 0xfffe; }},
                                           MatchingCase{"ByNameTellsLetterCase", false,
                                                        [](ServiceIdentity& i) {
                                                            i.serviceID = 0xfffe;
                                                            i.name = "media";
                                                        }},
                                           MatchingCase{"SameInstanceMatches", true,
                                                        [](ServiceIdentity& i) { i.instanceID = 3; }},
                                           MatchingCase{"OtherInstanceDoesNot", false,
                                                        [](ServiceIdentity& i) { i.instanceID = 4; }},
                                           MatchingCase{"InstanceZeroIsNoWildcard", false,
                                                        [](ServiceIdentity& i) { i.instanceID = 0; }},
                                           MatchingCase{"SameMajorVersionMatches", true,
                                                        [](ServiceIdentity& i) { i.majorVersion = 1; }},
                                           MatchingCase{"OtherMajorVersionDoesNot", false,
                                                        [](ServiceIdentity& i) { i.majorVersion = 2; }},
                                           MatchingCase{"SameMinorVersionMatches", true,
                                                        [](ServiceIdentity& i) { i.minorVersion = 2; }},
                                           MatchingCase{"OtherMinorVersionDoesNot", false,
                                                        [](ServiceIdentity& i) { i.minorVersion = 1; }},
                                           MatchingCase{"SameNameMatches", true,
                                                        [](ServiceIdentity& i) { i.name = "Media"; }},
                                           MatchingCase{"NameTellsLetterCase", false,
                                                        [](ServiceIdentity& i) { i.name = "MEDIA"; }},
                                           MatchingCase{"NameIsComparedBesidesTheServiceID", false,
                                                        [](ServiceIdentity& i) {
                                                            i.serviceID = 0x1234;
                                                            i.name = "Navi";
                                                        }},
                                           MatchingCase{"EmptyNameIsNoWildcard", false,
                                                        [](ServiceIdentity& i) { i.name = ""; }},
                                           MatchingCase{"SameAddressTextMatches", true,
                                                        [](ServiceIdentity& i) { i.ip = "fd00::2"; }},
                                           MatchingCase{"OtherTextOfTheAddressDoesNot", false,
                                                        [](ServiceIdentity& i) { i.ip = "fd00:0::2"; }},
                                           MatchingCase{"OtherAddressDoesNot", false,
                                                        [](ServiceIdentity& i) { i.ip = "fd00::3"; }},
                                           MatchingCase{"SamePortMatches", true,
                                                        [](ServiceIdentity& i) {
                                                            i.port = static_cast<unsigned short>(8080);
                                                        }},
                                           MatchingCase{"OtherPortDoesNot", false,
                                                        [](ServiceIdentity& i) {
                                                            i.port = static_cast<unsigned short>(8081);
                                                        }},
                                           MatchingCase{"PortZeroIsNoWildcard", false,
                                                        [](ServiceIdentity& i) {
                                                            i.port = static_cast<unsigned short>(0);
                                                        }},
                                           MatchingCase{
                                               "SameProtocolMatches", true,
                                               [](ServiceIdentity& i) { i.l4proto = OptionL4Protocol::TCP; }},
                                           MatchingCase{"OtherProtocolDoesNot", false,
                                                        [](ServiceIdentity& i) {
                                                            i.l4proto = OptionL4Protocol::UDP;
                                                        }},
                                           MatchingCase{"EveryFieldTogetherMatches", true,
                                                        [](ServiceIdentity& i) {
                                                            i.type = Type::DISCOVERED;
                                                            i.serviceID = 0x1234;
                                                            i.instanceID = 3;
                                                            i.majorVersion = 1;
                                                            i.minorVersion = 2;
                                                            i.name = "Media";
                                                            i.ip = "fd00::2";
                                                            i.port = static_cast<unsigned short>(8080);
                                                            i.l4proto = OptionL4Protocol::TCP;
                                                        }}),
                         [](const auto& row) { return row.param.name; });

TEST_F(SDStateMachineLookupTest, HighestInstanceIDIsTheLargestWhereverItStands)
{
    const ServicesContainer services{makeInstance(1), makeInstance(3), makeInstance(2)};

    EXPECT_EQ(SDStateMachine::findHighestInstanceID(services, 0), 3);
}

TEST_F(SDStateMachineLookupTest, HighestInstanceIDIsTheStartValueWhenNoneIsLarger)
{
    EXPECT_EQ(SDStateMachine::findHighestInstanceID({makeInstance(1), makeInstance(3)}, 9), 9);
    EXPECT_EQ(SDStateMachine::findHighestInstanceID({}, 5), 5);
}

TEST_F(SDStateMachineLookupTest, HighestInstanceIDCanBeTheLargestOfAll)
{
    EXPECT_EQ(SDStateMachine::findHighestInstanceID({makeInstance(0xffff), makeInstance(1)}, 0), 0xffff);
}

TEST_F(SDStateMachineLookupTest, AperiodicMatchesComeInTheOrderOfTheirDueTimes)
{
    AperiodicServicesContainer services;
    const SDService::Ptr last = makeService("Media");
    const SDService::Ptr first = makeService("Media");
    services.emplace(Poco::Clock(2000), last);
    services.emplace(Poco::Clock(1500), makeService("Navi"));
    services.emplace(Poco::Clock(1000), first);

    EXPECT_TRUE(machine.unsafe_findServices(services, named("Media"), found));

    EXPECT_THAT(found, ElementsAre(first, last));
}

TEST_F(SDStateMachineLookupTest, AperiodicMatchesOfEqualDueTimesComeInTheOrderOfInsertion)
{
    AperiodicServicesContainer services;
    const SDService::Ptr first = makeService("Media");
    const SDService::Ptr second = makeService("Media");
    services.emplace(Poco::Clock(1000), first);
    services.emplace(Poco::Clock(1000), second);

    machine.unsafe_findServices(services, named("Media"), found);

    EXPECT_THAT(found, ElementsAre(first, second));
}

TEST_F(SDStateMachineLookupTest, PeriodicMatchesComeInTheOrderOfTheContainer)
{
    const SDService::Ptr first = makeService("Media");
    const SDService::Ptr second = makeService("Media");

    EXPECT_TRUE(machine.unsafe_findServices(ServicesContainer{first, makeService("Navi"), second},
                                            named("Media"), found));

    EXPECT_THAT(found, ElementsAre(first, second));
}

TEST_F(SDStateMachineLookupTest, FindingNothingLeavesTheListEmptyAndSaysSo)
{
    AperiodicServicesContainer aperiodic;
    aperiodic.emplace(Poco::Clock(), makeService("Navi"));

    EXPECT_FALSE(machine.unsafe_findServices(aperiodic, named("Media"), found));
    EXPECT_FALSE(machine.unsafe_findServices(ServicesContainer{makeService("Navi")}, named("Media"), found));
    EXPECT_FALSE(machine.unsafe_findServices(ServicesContainer{}, ServiceIdentity(), found));
    EXPECT_THAT(found, IsEmpty());
}

TEST_F(SDStateMachineLookupTest, MatchesAreAppendedAndTheAnswerIsWhetherTheListHoldsAny)
{
    const SDService::Ptr before = makeService("Navi");
    const SDService::Ptr match = makeService("Media");
    found.push_back(before);

    EXPECT_TRUE(machine.unsafe_findServices(ServicesContainer{}, named("Media"), found));
    EXPECT_TRUE(machine.unsafe_findServices(AperiodicServicesContainer{}, named("Media"), found));
    EXPECT_TRUE(machine.unsafe_findServices(ServicesContainer{match}, named("Media"), found));

    EXPECT_THAT(found, ElementsAre(before, match));
}

TEST_F(SDStateMachineLookupTest, BothWorkloadsAreSearchedIntoAListEach)
{
    const SDService::Ptr waiting = makeService("Media");
    const SDService::Ptr longLived = makeService("Media");
    machine.putAperiodic(waiting);
    machine.putPeriodic(longLived);
    ServicesContainer periodic;

    EXPECT_TRUE(machine.unsafe_findServices(named("Media"), found, periodic));

    EXPECT_THAT(found, ElementsAre(waiting));
    EXPECT_THAT(periodic, ElementsAre(longLived));
}

TEST_F(SDStateMachineLookupTest, SearchOfBothWorkloadsSucceedsWhenOneOfThemHoldsAMatch)
{
    ServicesContainer periodic;
    EXPECT_FALSE(machine.unsafe_findServices(named("Media"), found, periodic));

    machine.putPeriodic(makeService("Media"));
    EXPECT_TRUE(machine.unsafe_findServices(named("Media"), found, periodic));

    machine.putAperiodic(makeService("Navi"));
    EXPECT_TRUE(machine.unsafe_findServices(named("Navi"), found, periodic));
}

TEST_F(SDStateMachineLookupTest, DuplicatesAreAppendedAndTheAnswerIsWhetherAnyWasAdded)
{
    const SDService::Ptr before = makeService("Navi");
    const SDService::Ptr duplicate = makeService("Media");
    found.push_back(before);

    EXPECT_FALSE(machine.unsafe_getDuplicates({makeService("Navi")}, named("Media"), found));
    EXPECT_TRUE(machine.unsafe_getDuplicates({duplicate}, named("Media"), found));

    EXPECT_THAT(found, ElementsAre(before, duplicate));
}

TEST_F(SDStateMachineLookupTest, FindByUuidYieldsTheFirstRecordThatCarriesIt)
{
    ServicesContainer services{makeService("A", "fd00::1", 1, "other"), makeService("B", "fd00::1", 2, "id"),
                               makeService("C", "fd00::1", 3, "id")};
    ServicesContainer::iterator position;

    ASSERT_TRUE(machine.unsafe_findByUuid("id", services, position));

    EXPECT_EQ(*position, services[1]);
}

TEST_F(SDStateMachineLookupTest, FindByUuidComparesEveryByte)
{
    ServicesContainer services{makeService("A", "fd00::1", 1, "ID"), makeService("B", "fd00::1", 2, "id ")};
    ServicesContainer::iterator position;

    EXPECT_FALSE(machine.unsafe_findByUuid("id", services, position));

    EXPECT_EQ(position, services.end());
}

TEST_F(SDStateMachineLookupTest, NullEntryInAContainerRaisesANullPointerException)
{
    ServicesContainer services{nullptr};
    AperiodicServicesContainer aperiodic;
    aperiodic.emplace(Poco::Clock(), nullptr);
    ServicesContainer::iterator position;

    EXPECT_THROW(SDStateMachine::doesServiceMatch(ServiceIdentity(), nullptr), Poco::NullPointerException);
    EXPECT_THROW(SDStateMachine::findHighestInstanceID(services, 0), Poco::NullPointerException);
    EXPECT_THROW(machine.unsafe_findServices(services, ServiceIdentity(), found), Poco::NullPointerException);
    EXPECT_THROW(machine.unsafe_findServices(aperiodic, ServiceIdentity(), found),
                 Poco::NullPointerException);
    EXPECT_THROW(machine.unsafe_getDuplicates(services, ServiceIdentity(), found),
                 Poco::NullPointerException);
    EXPECT_THROW(machine.unsafe_findByUuid("id", services, position), Poco::NullPointerException);
}

TEST_F(SDStateMachineLookupTest, PrintersListTheRecordsOfAContainer)
{
    const ServicesContainer services{makeRecord(Type::ANNOUNCED, State::MAIN_PHASE, "Media"), nullptr,
                                     makeRecord(Type::WANTED, State::REPETITION_PHASE, "Navi")};
    std::ostringstream names;
    std::ostringstream roles;

    names << ServicesContainer_Printer{services};
    roles << ServicesContainer_TypeAndStatePrinter{services};

    EXPECT_EQ(names.str(), " \"Media\" \"<nullptr>\" \"Navi\"");
    EXPECT_EQ(roles.str(), " \"Media\" ANNOUNCED x MAIN_PHASE <nullptr> \"Navi\" WANTED x REPETITION_PHASE");
}

/// After any change of the workloads, a look-up finds the same records as a walk over all of them.
TEST_F(SDStateMachineLookupTest, LookUpOverBothWorkloadsGivesWhatAPlainWalkGives)
{
    constexpr int events = 4000;
    const LogCatcher log;
    std::mt19937 random(20);
    const auto oneOf = [&](unsigned count) { return static_cast<unsigned short>(random() % count); };
    machine.run();

    for (int i = 0; i < events; ++i) {
        const std::string name = "Service" + std::to_string(oneOf(5));
        const unsigned short port = oneOf(4);
        SDService::Ptr service = makeService(name, "fd00::2", port, name + std::to_string(port));
        service->setTTL(1 + oneOf(3));
        const auto type = static_cast<TestStateMachine::Event::WorkloadEvent_t>(oneOf(6));
        machine.handle(type, service, service->getNuboDescription().getLocalUuid());
        SDClock::turn(100000);
        machine.aperiodicTick();
        if (i % 10 == 0)
            machine.periodicTick();
        if (i % 1000 == 0)
            machine.removeAllAnnouncedServices();

        for (const ServiceIdentity& identity :
             {named(name), ServiceIdentity(*service), ServiceIdentity::ofInstance(*service, Type::DISCOVERED),
              ServiceIdentity()})
        {
            ServicesContainer aperiodic;
            ServicesContainer periodic;
            const bool isFound = machine.unsafe_findServices(identity, aperiodic, periodic);
            ServicesContainer walkedAperiodic;
            ServicesContainer walkedPeriodic;
            machine.unsafe_findServices(machine.m_aperiodicWorkload, identity, walkedAperiodic);
            machine.unsafe_findServices(machine.m_periodicWorkload, identity, walkedPeriodic);
            ASSERT_EQ(aperiodic, walkedAperiodic) << "event " << i;
            ASSERT_EQ(periodic, walkedPeriodic) << "event " << i;
            ASSERT_EQ(isFound, !aperiodic.empty() || !periodic.empty());
        }
        const std::string uuid = "Service" + std::to_string(oneOf(5)) + std::to_string(oneOf(4));
        ASSERT_EQ(machine.indexed(uuid), machine.walked(uuid)) << "event " << i;
    }
    EXPECT_EQ(machine.m_index.size(), machine.aperiodic().size() + machine.periodic().size())
        << "or the look-ups were plain walks themselves";
}

TEST_F(SDStateMachineLookupTest, RecordsThatAreInAWorkloadAloneAreFoundToo)
{
    const SDService::Ptr first = makeRecord(Type::ANNOUNCED, State::MAIN_PHASE);
    const SDService::Ptr second = makeRecord(Type::DISCOVERED, State::MAIN_PHASE);
    machine.unsafe_addPeriodicService(first);
    machine.putPeriodic(second);
    ServicesContainer aperiodic;

    EXPECT_TRUE(machine.unsafe_findServices(named("Media"), aperiodic, found));

    EXPECT_THAT(found, ElementsAre(first, second));
}

}  // namespace Nubo::ServiceDiscovery::Testing
