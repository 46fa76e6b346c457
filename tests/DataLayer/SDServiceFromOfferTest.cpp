#include "DataLayer/SDClock.h"
#include "DataLayer/SDService.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "support/LogCatcher.h"

#include <Poco/Exception.h>

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr Poco::Clock::ClockDiff second = 1000000;

/// A received offer; tests change its three parts before they make the record.
struct SDServiceFromOfferTest : ::testing::Test
{
    SDServiceFromOfferTest()
    {
        fields.type = EntryType::OFFER_SERVICE;
        fields.serviceID = 0xFFFE;
        fields.instanceID = 7;
        fields.majorVersion = 1;
        fields.ttl = 3;
    }

    SDService make() const
    {
        return SDService(
            SOME_IP_SD_Entry_Service(fields, minorVersion),
            SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, address, port, OptionL4Protocol::UDP),
            SOME_IP_SD_Option_Configuration(pairs));
    }

    SDService::Ptr makeInstance() const
    {
        return SDService::instanceOf(
            SOME_IP_SD_Entry_Service(fields, minorVersion),
            SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, address, port, OptionL4Protocol::UDP),
            SOME_IP_SD_Option_Configuration(pairs));
    }

    LogCatcher log;
    SOME_IP_SD_Entry::CommonFields fields;
    std::uint32_t minorVersion = 2;
    std::string address = "fd00::1";
    std::uint16_t port = 8080;
    ConfigurationPairs pairs{{"otherserv", "Media"}, {"version", "1.2.0"}};
};

}  // namespace

TEST_F(SDServiceFromOfferTest, IdentityComesFromTheEntry)
{
    fields.serviceID = 0x1234;

    const SDService service = make();

    EXPECT_EQ(service.getServiceId(), 0x1234);
    EXPECT_EQ(service.getTTL(), 3u);
    EXPECT_EQ(service.getMajorVersion(), 1);
    EXPECT_EQ(service.getMinorVersion(), 2u);
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, LargestValuesOfTheEntryAreTakenWhole)
{
    fields.serviceID = 0xffff;
    fields.ttl = 0xfffffe;
    fields.majorVersion = 0xff;
    minorVersion = 0xfffefdfc;
    port = 0xffff;

    const SDService service = make();

    EXPECT_EQ(service.getServiceId(), 0xffff);
    EXPECT_EQ(service.getTTL(), 0xfffffeu);
    EXPECT_EQ(service.getSecondsLeft(), 0xfffffeu);
    EXPECT_EQ(service.getMajorVersion(), 0xff);
    EXPECT_EQ(service.getMinorVersion(), 0xfffefdfcu);
    EXPECT_EQ(service.getNuboDescription().getPort(), 0xffff);
    EXPECT_EQ(service.getNuboDescription().getUri(), "http://[fd00::1]:65535/Media/");
}

TEST_F(SDServiceFromOfferTest, InstanceIDIsZeroWhateverTheEntryCarried)
{
    fields.instanceID = 0x1234;

    EXPECT_EQ(make().getInstanceId(), 0);
}

TEST_F(SDServiceFromOfferTest, RecordStartsWithoutRoleAndUuid)
{
    const SDService service = make();

    EXPECT_EQ(service.getType(), SDService::Type::NONE);
    EXPECT_EQ(service.getState(), SDService::State::INITIAL_WAIT_PHASE);
    EXPECT_EQ(service.getRepetitionRun(), 0);
    EXPECT_EQ(service.getNuboDescription().getLocalUuid(), "");
}

TEST_F(SDServiceFromOfferTest, EndpointComesFromTheIPv6Option)
{
    const SDService service = make();

    EXPECT_EQ(service.getNuboDescription().getIpAddressString(), "fd00::1");
    EXPECT_EQ(service.getNuboDescription().getPort(), 8080);
    EXPECT_EQ(service.getNuboDescription().getL4Proto(), OptionL4Protocol::UDP);
}

TEST_F(SDServiceFromOfferTest, TTLIsADeadline)
{
    fields.ttl = 1000;

    const SDService service = make();

    SDClock::turn(900 * second);
    EXPECT_FALSE(service.isTTLElapsed());
    SDClock::turn(100 * second);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST_F(SDServiceFromOfferTest, DeadlineOfAStopOfferHasPassed)
{
    fields.ttl = 0;

    const SDService service = make();

    EXPECT_EQ(service.getTTL(), 0u);
    EXPECT_TRUE(service.isTTLElapsed());
}

TEST_F(SDServiceFromOfferTest, NameIsTheFirstOfSeveral)
{
    pairs = {{"otherserv", "Media"}, {"otherserv", "Audio"}, {"version", "1.0.0"}};

    EXPECT_EQ(make().getNuboDescription().getName(), "Media");
}

TEST_F(SDServiceFromOfferTest, NameMayBeEmpty)
{
    pairs = {{"otherserv", ""}, {"otherserv", "Audio"}, {"version", "1.0.0"}};

    const SDService service = make();

    EXPECT_EQ(service.getNuboDescription().getName(), "");
    EXPECT_EQ(service.getNuboDescription().getUri(), "http://[fd00::1]:8080//");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, NameIsNotLookedUpUnderServicename)
{
    pairs.emplace("servicename", "Other");

    EXPECT_EQ(make().getNuboDescription().getName(), "Media");
}

TEST_F(SDServiceFromOfferTest, VersionsAndCategoriesAreTakenUnchangedAndInOrder)
{
    pairs = {{"version", "~2.0.0"},
             {"version", "not a version"},
             {"otherserv", "Media"},
             {"category", "video"},
             {"category", "audio"}};

    const SDService service = make();

    EXPECT_THAT(service.getNuboDescription().getVersions(), ElementsAre("~2.0.0", "not a version"));
    EXPECT_THAT(service.getNuboDescription().getCategories(), ElementsAre("video", "audio"));
    EXPECT_EQ(service.getMajorVersion(), 1) << "not taken from the texts";
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, CategoriesMayBeMissing)
{
    EXPECT_THAT(make().getNuboDescription().getCategories(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, ReceivedPairsAreNotKept)
{
    pairs.emplace("txtvers", "99");
    pairs.emplace("l6proto", "other");

    EXPECT_THAT(make().getConfiguration(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, UriIsMadeFromNameAddressAndPort)
{
    EXPECT_EQ(make().getNuboDescription().getUri(), "http://[fd00::1]:8080/Media/");
}

TEST_F(SDServiceFromOfferTest, UriShowsPortZero)
{
    port = 0;

    EXPECT_EQ(make().getNuboDescription().getUri(), "http://[fd00::1]:0/Media/");
}

namespace {

struct MissingPairs
{
    const char* name;
    ConfigurationPairs pairs;
    const char* line;
};

struct MissingPairsTest : SDServiceFromOfferTest, ::testing::WithParamInterface<MissingPairs>
{};

}  // namespace

TEST_P(MissingPairsTest, AreNamedAndRefusedWithoutAText)
{
    pairs = GetParam().pairs;

    try {
        make();
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::InvalidArgumentException& exception) {
        EXPECT_EQ(exception.message(), "");
    }
    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    SDServiceFromOffer, MissingPairsTest,
    ::testing::Values(MissingPairs{"Version",
                                   {{"otherserv", "Media"}, {"txtvers", "1"}, {"w", "x"}},
                                   "Error: Failed to create service due to missing NuBo_Version!"},
                      MissingPairs{"Name",
                                   {{"version", "1.0.0"}, {"servicename", "Media"}},
                                   "Error: Failed to create service due to missing NuBo_Servicename!"},
                      MissingPairs{"NameBeyondTheLastKey",
                                   {{"category", "audio"}, {"l6proto", "nubo"}},
                                   "Error: Failed to create service due to missing NuBo_Servicename!"},
                      MissingPairs{"NameIsAskedForBeforeTheVersion",
                                   {},
                                   "Error: Failed to create service due to missing NuBo_Servicename!"}),
    [](const auto& row) { return row.param.name; });

namespace {

struct InvalidParts
{
    const char* name;
    bool validEntry;
    bool validIPv6;
    bool validConfiguration;
    const char* line;
};

struct InvalidPartsTest : ::testing::TestWithParam<InvalidParts>
{};

}  // namespace

TEST_P(InvalidPartsTest, AreNamedAndRefusedWithoutAText)
{
    const LogCatcher log;
    const InvalidParts& parts = GetParam();
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::OFFER_SERVICE;
    const auto entry = parts.validEntry ? std::make_unique<SOME_IP_SD_Entry_Service>(fields, 0)
                                        : std::make_unique<SOME_IP_SD_Entry_Service>(fields.type);
    const auto ipv6 = parts.validIPv6 ? std::make_unique<SOME_IP_SD_Option_IPv6>(
                                            OptionType::IP6_ENDPOINT, "fd00::1", 80, OptionL4Protocol::TCP)
                                      : std::make_unique<SOME_IP_SD_Option_IPv6>(OptionType::IP6_ENDPOINT);
    const auto configuration = parts.validConfiguration
                                   ? std::make_unique<SOME_IP_SD_Option_Configuration>(
                                         ConfigurationPairs{{"otherserv", "Media"}, {"version", "1.0.0"}})
                                   : std::make_unique<SOME_IP_SD_Option_Configuration>(std::uint16_t{5});

    try {
        const SDService service(*entry, *ipv6, *configuration);
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::InvalidArgumentException& exception) {
        EXPECT_EQ(exception.message(), "");
    }
    EXPECT_THAT(log.lines(), ElementsAre(parts.line));
}

INSTANTIATE_TEST_SUITE_P(
    SDServiceFromOffer, InvalidPartsTest,
    ::testing::Values(
        InvalidParts{"Entry", false, true, true,
                     "Error: Failed to create service due to invalid Service Entry"},
        InvalidParts{"IPv6", true, false, true,
                     "Error: Failed to create service due to invalid  IPv6 Option"},
        InvalidParts{"Configuration", true, true, false,
                     "Error: Failed to create service due to invalid  Configuration Option"},
        InvalidParts{"EntryAndIPv6", false, false, true,
                     "Error: Failed to create service due to invalid Service Entry IPv6 Option"},
        InvalidParts{"EntryAndConfiguration", false, true, false,
                     "Error: Failed to create service due to invalid Service Entry Configuration Option"},
        InvalidParts{"BothOptions", true, false, false,
                     "Error: Failed to create service due to invalid  IPv6 Option Configuration Option"},
        InvalidParts{"All", false, false, false,
                     "Error: Failed to create service due to invalid Service Entry IPv6 Option "
                     "Configuration Option"}),
    [](const auto& row) { return row.param.name; });

TEST_F(SDServiceFromOfferTest, InstanceIsWhatTheWholeOfferSaysWithoutItsLists)
{
    pairs = {{"otherserv", "Media"}, {"version", "1.0.0"}, {"category", "Audio"}};

    const SDService::Ptr instance = makeInstance();

    const NuboServiceDescription& description = instance->getNuboDescription();
    EXPECT_EQ(instance->getServiceId(), 0xFFFE);
    EXPECT_EQ(instance->getTTL(), 3u);
    EXPECT_EQ(description.getName(), "Media");
    EXPECT_EQ(description.getIpAddressString(), "fd00::1");
    EXPECT_EQ(description.getPort(), 8080);
    EXPECT_EQ(description.getL4Proto(), OptionL4Protocol::UDP);
    EXPECT_THAT(description.getVersions(), IsEmpty());
    EXPECT_THAT(description.getCategories(), IsEmpty());
}

TEST_F(SDServiceFromOfferTest, InstanceThatIsCompletedIsWhatTheWholeOfferSays)
{
    pairs = {{"otherserv", "Media"}, {"version", "1.0.0"}, {"version", "~2.0.0"}, {"category", "Audio"}};
    SDService::Ptr service = makeInstance();

    service->complete(SOME_IP_SD_Option_Configuration(pairs));

    const NuboServiceDescription& description = service->getNuboDescription();
    EXPECT_THAT(description.getVersions(), ElementsAre("1.0.0", "~2.0.0"));
    EXPECT_THAT(description.getCategories(), ElementsAre("Audio"));
    EXPECT_EQ(description.getUri(), "http://[fd00::1]:8080/Media/");
}

TEST_F(SDServiceFromOfferTest, InstanceIsRefusedForWhatTheWholeOfferIsRefused)
{
    pairs = {{"otherserv", "Media"}};
    EXPECT_TRUE(makeInstance().isNull());

    pairs = {{"version", "1.0.0"}};
    EXPECT_TRUE(makeInstance().isNull());

    EXPECT_THAT(log.lines(), ElementsAre("Error: Failed to create service due to missing NuBo_Version!",
                                         "Error: Failed to create service due to missing NuBo_Servicename!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
