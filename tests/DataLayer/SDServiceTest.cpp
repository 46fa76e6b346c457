#include "DataLayer/SDClock.h"
#include "DataLayer/SDService.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"

#include <Poco/Exception.h>

#include <ios>
#include <sstream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;
using State = SDService::State;
using Type = SDService::Type;

namespace {

constexpr Poco::Clock::ClockDiff second = 1000000;
constexpr Poco::Clock::ClockDiff day = 24 * 3600 * second;

template <class Value>
std::string printed(Value value)
{
    std::ostringstream stream;
    stream << value;
    return stream.str();
}

NuboServiceDescription media(const std::vector<std::string>& versions)
{
    NuboServiceDescription description;
    description.setName("Media");
    for (const std::string& version : versions)
        description.addVersion(version);
    return description;
}

}  // namespace

TEST(SDServiceTest, TypesAndStatesHaveTheirNumbers)
{
    EXPECT_EQ(Type::NONE, 0u);
    EXPECT_EQ(Type::WANTED, 1u);
    EXPECT_EQ(Type::ANNOUNCED, 2u);
    EXPECT_EQ(Type::DISCOVERED, 3u);
    EXPECT_EQ(Type::ANY, 4u);
    EXPECT_EQ(State::ONCE, 0u);
    EXPECT_EQ(State::INITIAL_WAIT_PHASE, 1u);
    EXPECT_EQ(State::REPETITION_PHASE, 2u);
    EXPECT_EQ(State::MAIN_PHASE, 3u);
    EXPECT_EQ(State::SHUTDOWN_PHASE, 4u);
    EXPECT_EQ(State::REMOVED, 5u);
}

TEST(SDServiceTest, TypesAndStatesPrintTheirNames)
{
    EXPECT_EQ(printed(Type::NONE), "NONE");
    EXPECT_EQ(printed(Type::WANTED), "WANTED");
    EXPECT_EQ(printed(Type::ANNOUNCED), "ANNOUNCED");
    EXPECT_EQ(printed(Type::DISCOVERED), "DISCOVERED");
    EXPECT_EQ(printed(Type::ANY), "ANY");
    EXPECT_EQ(printed(State::ONCE), "ONCE");
    EXPECT_EQ(printed(State::INITIAL_WAIT_PHASE), "INITIAL_WAIT_PHASE");
    EXPECT_EQ(printed(State::REPETITION_PHASE), "REPETITION_PHASE");
    EXPECT_EQ(printed(State::MAIN_PHASE), "MAIN_PHASE");
    EXPECT_EQ(printed(State::SHUTDOWN_PHASE), "SHUTDOWN_PHASE");
    EXPECT_EQ(printed(State::REMOVED), "REMOVED");
}

TEST(SDServiceTest, UnknownTypesAndStatesPrintTheirNumberInTheStreamsBase)
{
    const auto type = static_cast<Type::Type_t>(17);
    const auto state = static_cast<State::State_t>(17);
    std::ostringstream hexadecimal;

    hexadecimal << std::hex << type << ' ' << state;

    EXPECT_EQ(printed(type), "UNKNOWN 0x17");
    EXPECT_EQ(printed(state), "UNKNOWN 0x17");
    EXPECT_EQ(hexadecimal.str(), "UNKNOWN 0x11 UNKNOWN 0x11");
}

TEST(SDServiceTest, NumberOfAnUnknownTypeOrStateIsPrintedWhole)
{
    EXPECT_EQ(printed(static_cast<Type::Type_t>(5)), "UNKNOWN 0x5");
    EXPECT_EQ(printed(static_cast<State::State_t>(6)), "UNKNOWN 0x6");
    EXPECT_EQ(printed(static_cast<Type::Type_t>(0xfffffffe)), "UNKNOWN 0x4294967294");
    EXPECT_EQ(printed(static_cast<State::State_t>(0xfffffffe)), "UNKNOWN 0x4294967294");
}

TEST(SDServiceTest, RecordOfADescriptionStartsWithTheDefaults)
{
    const SDService service(describe("Media", "fd00::12", 8080, "an id", "0.0.7"));

    EXPECT_EQ(service.getTTL(), 120u);
    EXPECT_EQ(service.getServiceId(), 0xFFFE);
    EXPECT_EQ(service.getInstanceId(), 0);
    EXPECT_EQ(service.getMajorVersion(), 0);
    EXPECT_EQ(service.getMinorVersion(), 0u);
    EXPECT_EQ(service.getType(), Type::NONE);
    EXPECT_EQ(service.getState(), State::INITIAL_WAIT_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 0);
}

TEST(SDServiceTest, RecordOfADescriptionKeepsACopyOfIt)
{
    NuboServiceDescription description = describe("Media", "fd00::12", 8080, "an id", "~1.2.3");
    description.addCategory("audio");
    description.setL4Proto(OptionL4Protocol::UDP);

    const SDService service(description);
    description.setName("changed");

    const NuboServiceDescription& kept = service.getNuboDescription();
    EXPECT_EQ(kept.getName(), "Media");
    EXPECT_THAT(kept.getVersions(), ElementsAre("~1.2.3"));
    EXPECT_THAT(kept.getCategories(), ElementsAre("audio"));
    EXPECT_EQ(kept.getIpAddressString(), "fd00::12");
    EXPECT_EQ(kept.getPort(), 8080);
    EXPECT_EQ(kept.getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_EQ(kept.getLocalUuid(), "an id");
    EXPECT_EQ(kept.getUri(), "http://[fd00::12]:8080/Media/");
}

TEST(SDServiceTest, ConfigurationHoldsFixedPairsVersionsAndCategoriesInKeyOrder)
{
    const LogCatcher log;
    NuboServiceDescription description = media({"1.0.0", "~1.2.0"});
    description.addCategory("audio");

    const SDService service(description);

    EXPECT_THAT(service.getConfiguration(),
                ElementsAre(Pair("category", "audio"), Pair("l6proto", "nubo"), Pair("otherserv", "Media"),
                            Pair("txtvers", "1"), Pair("version", "1.0.0"), Pair("version", "~1.2.0")));
    EXPECT_EQ(service.getMajorVersion(), 1);
    EXPECT_EQ(service.getMinorVersion(), 2u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SDServiceTest, VersionsAndCategoriesKeepTheOrderOfTheirLists)
{
    NuboServiceDescription description = media({"2.0.0", "1.0.0", "2.0.0"});
    description.addCategory("video");
    description.addCategory("audio");

    const SDService service(description);

    EXPECT_THAT(service.getConfiguration(),
                ElementsAre(Pair("category", "video"), Pair("category", "audio"), Pair("l6proto", "nubo"),
                            Pair("otherserv", "Media"), Pair("txtvers", "1"), Pair("version", "2.0.0"),
                            Pair("version", "1.0.0"), Pair("version", "2.0.0")));
}

TEST(SDServiceTest, CategoriesMayBeMissing)
{
    const SDService service(media({"1.0.0"}));

    EXPECT_EQ(service.getConfiguration().count("category"), 0u);
}

TEST(SDServiceTest, RecordOfGivenFieldsTakesThemUnchecked)
{
    const LogCatcher log;
    const ConfigurationPairs configuration{{"a", "1"}, {"b", "2"}};

    const SDService service(media({}), 3, 0x1234, 0x5678, 9, 0x01020304, configuration, Type::DISCOVERED);

    EXPECT_EQ(service.getNuboDescription().getName(), "Media");
    EXPECT_EQ(service.getTTL(), 3u);
    EXPECT_EQ(service.getServiceId(), 0x1234);
    EXPECT_EQ(service.getInstanceId(), 0x5678);
    EXPECT_EQ(service.getMajorVersion(), 9);
    EXPECT_EQ(service.getMinorVersion(), 0x01020304u);
    EXPECT_EQ(service.getConfiguration(), configuration);
    EXPECT_EQ(service.getType(), Type::DISCOVERED);
    EXPECT_EQ(service.getState(), State::INITIAL_WAIT_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SDServiceTest, RecordOfANameHoldsTheFixedPairsOnly)
{
    const LogCatcher log;

    const SDService service("Media");

    EXPECT_EQ(service.getNuboDescription().getName(), "Media");
    EXPECT_THAT(service.getNuboDescription().getVersions(), IsEmpty());
    EXPECT_THAT(service.getNuboDescription().getCategories(), IsEmpty());
    EXPECT_EQ(service.getNuboDescription().getIpAddressString(), "::");
    EXPECT_EQ(service.getNuboDescription().getPort(), 0);
    EXPECT_EQ(service.getNuboDescription().getL4Proto(), OptionL4Protocol::TCP);
    EXPECT_EQ(service.getNuboDescription().getLocalUuid(), "");
    EXPECT_EQ(service.getNuboDescription().getUri(), "");
    EXPECT_THAT(service.getConfiguration(),
                ElementsAre(Pair("l6proto", "nubo"), Pair("otherserv", "Media"), Pair("txtvers", "1")));
    EXPECT_EQ(service.getTTL(), 120u);
    EXPECT_EQ(service.getServiceId(), 0xFFFE);
    EXPECT_EQ(service.getInstanceId(), 0);
    EXPECT_EQ(service.getMajorVersion(), 0);
    EXPECT_EQ(service.getMinorVersion(), 0u);
    EXPECT_EQ(service.getType(), Type::NONE);
    EXPECT_EQ(service.getState(), State::INITIAL_WAIT_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 0);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(SDServiceTest, DeadlineOfARecordOfANameHasPassedFromTheStart)
{
    const SDService service("Media");

    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, DeadlineOfARecordOfADescriptionIsTwoMinutesAway)
{
    const SDService service(media({"1.0.0"}));

    SDClock::turn(100 * second);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(20 * second);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, DeadlineOfARecordOfGivenFieldsIsItsTTLAway)
{
    const SDService service(media({}), 1000, 1, 1, 1, 1, {}, Type::DISCOVERED);

    SDClock::turn(900 * second);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(100 * second);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, SecondsLeftAreRoundedUpAndNeverBelowZero)
{
    SDService service("Media");
    EXPECT_EQ(service.getSecondsLeft(), 0u);

    service.setTTL(120);
    EXPECT_EQ(service.getSecondsLeft(), 120u);
    SDClock::turn(100 * second);
    EXPECT_EQ(service.getSecondsLeft(), 20u);
    SDClock::turn(30 * second);
    EXPECT_EQ(service.getSecondsLeft(), 0u);

    service.setTTL(0xffffff);
    EXPECT_EQ(service.getSecondsLeft(), 0xffffffu);
}

TEST(SDServiceTest, SetTTLMovesTheDeadline)
{
    SDService service("Media");

    service.setTTL(120);

    EXPECT_EQ(service.getTTL(), 120u);
    SDClock::turn(100 * second);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(20 * second);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, TTLOfZeroElapsesAtOnce)
{
    SDService service(media({"1.0.0"}));

    service.setTTL(0);

    EXPECT_EQ(service.getTTL(), 0u);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, TTLHasElapsedAtTheDeadlineItself)
{
    SDService service("Media");

    // Most of these checks run within the very microsecond of the deadline.
    for (int i = 0; i < 1000; ++i) {
        service.setTTL(0);
        ASSERT_TRUE(service.isTTLElapsed());
    }
}

TEST(SDServiceTest, LargestTTLOnTheWireIs194Days)
{
    SDService service("Media");

    service.setTTL(0xFFFFFF);

    SDClock::turn(194 * day);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(day);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, DeadlineIsComputedFromAllBitsOfTheTTL)
{
    SDService service("Media");

    service.setTTL(0xffffffff);

    EXPECT_EQ(service.getTTL(), 0xffffffffu);
    EXPECT_EQ(service.getSecondsLeft(), 0xffffffffu);
    SDClock::turn(0xffffff00 * second);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(0xff * second);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST(SDServiceTest, AnotherStateRestartsTheCountOfSends)
{
    SDService service("Media");
    service.incrementRepetitionRun();

    service.setState(State::REPETITION_PHASE);

    EXPECT_EQ(service.getState(), State::REPETITION_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 0);
}

TEST(SDServiceTest, SameStateKeepsTheCountOfSends)
{
    SDService service("Media");
    service.setState(State::MAIN_PHASE);
    service.incrementRepetitionRun();
    service.incrementRepetitionRun();

    service.setState(State::MAIN_PHASE);

    EXPECT_EQ(service.getState(), State::MAIN_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 2);
}

TEST(SDServiceTest, CountOfSendsWrapsAt256)
{
    SDService service("Media");

    for (int i = 0; i < 255; ++i)
        service.incrementRepetitionRun();

    EXPECT_EQ(service.getRepetitionRun(), 255);
    service.incrementRepetitionRun();
    EXPECT_EQ(service.getRepetitionRun(), 0);
}

TEST(SDServiceTest, CountOfSendsCanBeReset)
{
    SDService service("Media");
    service.incrementRepetitionRun();

    service.resetRepetitionRun();

    EXPECT_EQ(service.getRepetitionRun(), 0);
}

TEST(SDServiceTest, EveryFieldIsKeptAsSet)
{
    SDService service("Media");
    const ConfigurationPairs configuration{{"key", "value"}};

    service.setType(Type::WANTED);
    service.setServiceId(0x1234);
    service.setInstanceId(0x5678);
    service.setMajorVersion(200);
    service.setMinorVersion(0xFFFFFFFF);
    service.setConfiguration(configuration);
    service.setLocalUuid("an id");

    EXPECT_EQ(service.getType(), Type::WANTED);
    EXPECT_EQ(service.getServiceId(), 0x1234);
    EXPECT_EQ(service.getInstanceId(), 0x5678);
    EXPECT_EQ(service.getMajorVersion(), 200);
    EXPECT_EQ(printed(service.getMajorVersion_AsUnsigned()), "200");
    EXPECT_EQ(service.getMinorVersion(), 0xFFFFFFFFu);
    EXPECT_EQ(service.getConfiguration(), configuration);
    EXPECT_EQ(service.getNuboDescription().getLocalUuid(), "an id");
}

TEST(SDServiceTest, AnotherDescriptionChangesNothingElse)
{
    SDService service(media({"1.2.0"}));
    service.setType(Type::ANNOUNCED);
    service.incrementRepetitionRun();
    const ConfigurationPairs configuration = service.getConfiguration();

    NuboServiceDescription other = describe("Navi", "fd00::2", 1234, "other id", "7.8.9");
    other.addCategory("maps");
    other.setL4Proto(OptionL4Protocol::UDP);

    service.setNuboDescription(other);

    EXPECT_EQ(service.getNuboDescription().getName(), "Navi");
    EXPECT_THAT(service.getNuboDescription().getVersions(), ElementsAre("7.8.9"));
    EXPECT_THAT(service.getNuboDescription().getCategories(), ElementsAre("maps"));
    EXPECT_EQ(service.getNuboDescription().getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_EQ(service.getNuboDescription().getIpAddressString(), "fd00::2");
    EXPECT_EQ(service.getNuboDescription().getPort(), 1234);
    EXPECT_EQ(service.getNuboDescription().getLocalUuid(), "other id");
    EXPECT_EQ(service.getNuboDescription().getUri(), "http://[fd00::2]:1234/Navi/");
    EXPECT_EQ(service.getConfiguration(), configuration);
    EXPECT_EQ(service.getMajorVersion(), 1);
    EXPECT_EQ(service.getMinorVersion(), 2u);
    EXPECT_EQ(service.getType(), Type::ANNOUNCED);
    EXPECT_EQ(service.getRepetitionRun(), 1);
    EXPECT_FALSE(service.isTTLElapsed());
}

namespace {

/// A setter of a field that is sent.
struct PacketCase
{
    const char* name;
    void (*set)(SDService&);

    friend void PrintTo(const PacketCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDServicePacketTest : ::testing::TestWithParam<PacketCase>
{};

}  // namespace

TEST(SDServiceTest, PacketIsKeptAndCopiedWithTheRecord)
{
    SDService service(describe("Media"));
    EXPECT_EQ(service.getPacket(), "");

    service.setPacket("bytes");
    service.setState(State::MAIN_PHASE);
    service.setLocalUuid("other id");

    EXPECT_EQ(service.getPacket(), "bytes");
    EXPECT_EQ(SDService(service).getPacket(), "bytes");
}

TEST_P(SDServicePacketTest, IsForgottenWhenSomethingOfItChanges)
{
    SDService service(describe("Media"));
    service.setPacket("bytes");

    GetParam().set(service);

    EXPECT_EQ(service.getPacket(), "");
}

TEST(SDServiceTest, PacketIsKeptWhenNumbersAreSetToTheirValues)
{
    SDService service(describe("Media"));
    service.setPacket("bytes");

    service.setType(service.getType());
    service.setTTL(service.getTTL());
    service.setServiceId(service.getServiceId());
    service.setInstanceId(service.getInstanceId());
    service.setMajorVersion(service.getMajorVersion());
    service.setMinorVersion(service.getMinorVersion());

    EXPECT_EQ(service.getPacket(), "bytes");
}

INSTANTIATE_TEST_SUITE_P(
    Fields, SDServicePacketTest,
    ::testing::Values(PacketCase{"Description",
                                 [](SDService& service) { service.setNuboDescription(describe("Navi")); }},
                      PacketCase{"Type", [](SDService& service) { service.setType(Type::WANTED); }},
                      PacketCase{"TTL", [](SDService& service) { service.setTTL(0); }},
                      PacketCase{"ServiceID", [](SDService& service) { service.setServiceId(1); }},
                      PacketCase{"InstanceID", [](SDService& service) { service.setInstanceId(2); }},
                      PacketCase{"MajorVersion", [](SDService& service) { service.setMajorVersion(3); }},
                      PacketCase{"MinorVersion", [](SDService& service) { service.setMinorVersion(4); }},
                      PacketCase{"Configuration",
                                 [](SDService& service) {
                                     service.setConfiguration({{"a", "b"}});
                                 }}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
