#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "LogicLayer/IncomingEntries.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"

#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::configurationOption;
using Packets::ipv4Option;
using Packets::ipv6Option;
using Packets::loadBalancingOption;
using Packets::offerConfiguration;
using Packets::optionOfUnknownType;
using Poco::Net::SocketAddress;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr auto offerType = "01";
constexpr auto findType = "00";

/// Each reading begins with an empty log.
struct IncomingEntriesTest : ::testing::Test
{
    IncomingOffer offer(const SOME_IP_SD_Header::EntryData& data)
    {
        log.clear();
        return IncomingEntries::readOffer(data, SocketAddress(Packets::otherUnitOrigin));
    }
    IncomingOffer offer(const std::string& bytes) { return offer(Packets::firstEntryOf(bytes)); }
    IncomingOffer offerWith(const std::vector<std::string>& options)
    {
        return offer(Packets::packetWith(offerType, options));
    }

    SDService::Ptr find(const SOME_IP_SD_Header::EntryData& data)
    {
        log.clear();
        return IncomingEntries::readFind(data);
    }
    SDService::Ptr findWith(const std::vector<std::string>& options)
    {
        return find(Packets::firstEntryOf(Packets::packetWith(findType, options)));
    }

    LogCatcher log;
};

/// The name of the service that an entry is about; empty when the entry was passed over.
std::string nameIn(const SDService::Ptr& service)
{
    return service.isNull() ? "" : service->getNuboDescription().getName();
}
std::string nameIn(const IncomingOffer& offer)
{
    return nameIn(offer.service);
}

SOME_IP_SD_Header::EntryData entryOfWrongClass()
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::SUBSCRIBE;
    return {new SOME_IP_SD_Entry_Eventgroup(fields, false, 0, 0), {}};
}

/// Options for which an entry is refused or passed over, and the one log line that gives the reason.
struct RefusalCase
{
    const char* name;
    std::vector<std::string> options;
    std::string line;

    friend void PrintTo(const RefusalCase& row, std::ostream* stream) { *stream << row.name; }
};

struct RefusedOfferTest : IncomingEntriesTest, ::testing::WithParamInterface<RefusalCase>
{};

struct SkippedOfferTest : IncomingEntriesTest, ::testing::WithParamInterface<RefusalCase>
{};

struct RefusedFindTest : IncomingEntriesTest, ::testing::WithParamInterface<RefusalCase>
{};

std::string offerCount(int number)
{
    return "Error: Failed to handle OFFER_SERVICE due to invalid amount of Options: " +
           std::to_string(number) + "/[1-4]!";
}

std::string offerTypes(const std::string& found)
{
    return "Error: Failed to handle OFFER_SERVICE due to invalid Option types! (Found " + found + " Options)";
}

std::string findCount(int number)
{
    return "Error: Failed to handle FIND_SERVICE due to invalid amount of Options: " +
           std::to_string(number) + "/[1-2]!";
}

std::vector<std::string> offerOptionsWith(const std::vector<std::string>& configuration)
{
    return {ipv6Option(), configurationOption(configuration)};
}

constexpr auto findTypes = "Error: Failed to handle FIND_SERVICE due to invalid Option types!";
const auto media = offerConfiguration("Media");
const auto mediaName = configurationOption({"otherserv=Media"});
const auto rowName = [](const ::testing::TestParamInfo<RefusalCase>& row) { return row.param.name; };

}  // namespace

TEST_F(IncomingEntriesTest, OfferBecomesARecordWithAllItsValues)
{
    const std::string options = ipv6Option("fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 12") +
                                configurationOption({"category=audio", "l6proto=nubo", "otherserv=Media",
                                                     "txtvers=1", "version=1.0.0", "version=~1.2.0"});

    const IncomingOffer read =
        offer(Packets::packet(Packets::Entry{"01", "00 01 11", "00 07", "00 01 02"}.bytes(), options));

    ASSERT_FALSE(read.service.isNull());
    SDService::Ptr service = read.service;
    service->complete(*read.configuration);
    EXPECT_EQ(service->getTTL(), 0x102u);
    const NuboServiceDescription& description = service->getNuboDescription();
    EXPECT_EQ(description.getName(), "Media");
    EXPECT_THAT(description.getVersions(), ElementsAre("1.0.0", "~1.2.0"));
    EXPECT_THAT(description.getCategories(), ElementsAre("audio"));
    EXPECT_EQ(description.getIpAddressString(), "fd00::12");
    EXPECT_EQ(description.getPort(), 8080);
    EXPECT_EQ(description.getL4Proto(), OptionL4Protocol::TCP);
    EXPECT_EQ(description.getUri(), "http://[fd00::12]:8080/Media/");
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IncomingEntriesTest, StopOfferIsAnOfferWithTTLZero)
{
    const IncomingOffer read = offer(Packets::stopOffer("Media"));

    ASSERT_EQ(nameIn(read), "Media");
    EXPECT_EQ(read.service->getTTL(), 0u);
}

TEST_F(IncomingEntriesTest, AllFourKindsOfOptionsAreAcceptedInAnyOrder)
{
    EXPECT_EQ(nameIn(offerWith({loadBalancingOption(), media, ipv4Option(), ipv6Option()})), "Media");

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IncomingEntriesTest, OfferWithOneOfTheOptionalOptionsIsAccepted)
{
    EXPECT_EQ(nameIn(offerWith({ipv6Option(), media, loadBalancingOption()})), "Media");
    EXPECT_EQ(nameIn(offerWith({ipv4Option(), ipv6Option(), offerConfiguration("Navi")})), "Navi");
}

TEST_P(RefusedOfferTest, IsReportedWithTheReason)
{
    const IncomingOffer read = offerWith(GetParam().options);

    EXPECT_TRUE(read.service.isNull());
    EXPECT_TRUE(read.configuration.isNull());
    EXPECT_THAT(log.complaints(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Options, RefusedOfferTest,
    ::testing::Values(
        RefusalCase{"NoOptions", {}, offerCount(0)},
        RefusalCase{"AddressOnly", {ipv6Option()}, offerCount(1)},
        RefusalCase{"FiveOptions",
                    {ipv6Option(), media, ipv4Option(), loadBalancingOption(), loadBalancingOption()},
                    offerCount(5)},
        RefusalCase{"SecondAddress", {ipv6Option(), media, ipv6Option()}, offerTypes("2/3")},
        RefusalCase{"SecondConfiguration", {ipv6Option(), media, media}, offerTypes("2/3")},
        RefusalCase{"SecondOfTheOptionalOnes",
                    {ipv6Option(), media, loadBalancingOption(), loadBalancingOption()},
                    offerTypes("3/4")},
        RefusalCase{"IPv4AddressOnly", {ipv4Option(), media}, offerTypes("2/2")},
        RefusalCase{"NoConfiguration", {ipv6Option(), loadBalancingOption()}, offerTypes("2/2")},
        RefusalCase{"OptionOfUnknownType", {ipv6Option(), media, optionOfUnknownType()}, offerTypes("2/3")},
        RefusalCase{"UnspecifiedAddress",
                    {ipv6Option("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00"), media},
                    "Error: Failed to handle OFFER_SERVICE due to invalid IP address \"::\"."},
        RefusalCase{"LoopbackAddress",
                    {ipv6Option("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01"), media},
                    "Error: Failed to handle OFFER_SERVICE due to invalid IP address \"::1\"."},
        RefusalCase{"LoopbackAddressOfIPv4",
                    {ipv6Option("00 00 00 00 00 00 00 00 00 00 ff ff 7f 01 02 03"), media},
                    "Error: Failed to handle OFFER_SERVICE due to invalid IP address \"::ffff:127.1.2.3\"."},
        // Poco leaves out the IPv4 address when its first byte is 0.
        RefusalCase{"UnspecifiedAddressOfIPv4",
                    {ipv6Option("00 00 00 00 00 00 00 00 00 00 ff ff 00 00 00 00"), media},
                    "Error: Failed to handle OFFER_SERVICE due to invalid IP address \"::ffff:\"."},
        RefusalCase{"AddressOfThisNetworkOfIPv4",
                    {ipv6Option("00 00 00 00 00 00 00 00 00 00 ff ff 00 01 02 03"), media},
                    "Error: Failed to handle OFFER_SERVICE due to invalid IP address \"::ffff:\"."}),
    rowName);

TEST_F(IncomingEntriesTest, UnspecifiedAddressIsNoUnitsAddress)
{
    const IncomingOffer read = IncomingEntries::readOffer(Packets::firstEntryOf(Packets::offer("Media")),
                                                          SocketAddress("[::]:30491"));

    ASSERT_FALSE(read.service.isNull());
    EXPECT_EQ(read.service->getSender().front(), 0xff) << "a multicast address, from which nothing can come";
}

TEST_F(IncomingEntriesTest, OptionsThatWereFoundAreListedInAFixedOrder)
{
    offerWith({loadBalancingOption(), ipv4Option(), media});
    EXPECT_THAT(log.traces(),
                Contains("Trace: Found Options: IPv4 Option Configuration Option LoadBalancing Option"));

    offerWith({optionOfUnknownType(), media, ipv6Option()});
    EXPECT_THAT(log.traces(), Contains("Trace: Found Options: IPv6 Option Configuration Option"));

    offerWith({ipv6Option(), optionOfUnknownType()});
    EXPECT_THAT(log.traces(), Contains("Trace: Found Options: IPv6 Option"));

    offerWith({optionOfUnknownType(), optionOfUnknownType()});
    EXPECT_THAT(log.traces(), Contains("Trace: Found Options:"));
}

TEST_P(SkippedOfferTest, IsOfAnotherProtocolAndPassedOverWithoutComplaint)
{
    const IncomingOffer read = offerWith(GetParam().options);

    EXPECT_TRUE(read.service.isNull());
    EXPECT_TRUE(read.configuration.isNull());
    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, SkippedOfferTest,
    ::testing::Values(
        RefusalCase{"NoApplicationProtocol",
                    offerOptionsWith({"otherserv=Media", "txtvers=1", "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid number Applicationprotocols: 0"},
        RefusalCase{"TwoApplicationProtocols",
                    offerOptionsWith({"l6proto=nubo", "l6proto=nubo", "otherserv=Media", "txtvers=1",
                                      "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid number Applicationprotocols: 2"},
        RefusalCase{"OtherApplicationProtocol",
                    offerOptionsWith({"l6proto=Nubo", "otherserv=Media", "txtvers=1", "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid Applicationprotocol: \"Nubo\"!"},
        RefusalCase{"NoRecordVersion", offerOptionsWith({"l6proto=nubo", "otherserv=Media", "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid number TXT-record versions: 0"},
        RefusalCase{"ThreeRecordVersions",
                    offerOptionsWith({"l6proto=nubo", "otherserv=Media", "txtvers=1", "txtvers=1",
                                      "txtvers=1", "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid number TXT-record versions: 3"},
        RefusalCase{"OtherRecordVersion",
                    offerOptionsWith({"l6proto=nubo", "otherserv=Media", "txtvers=2", "version=1.0.0"}),
                    "Debug: Skip processing OFFER_SERVICE due to invalid TXT-record version: \"2\"!"}),
    rowName);

TEST_F(IncomingEntriesTest, OfferWithSeveralFaultsIsPassedOverForTheFirst)
{
    const std::string loopback = ipv6Option("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01");

    EXPECT_TRUE(offerWith({loopback, configurationOption({"l6proto=other", "txtvers=2"})}).service.isNull());
    EXPECT_THAT(
        log.debugs(),
        ElementsAre("Debug: Skip processing OFFER_SERVICE due to invalid Applicationprotocol: \"other\"!"));
    EXPECT_THAT(log.complaints(), IsEmpty());

    EXPECT_TRUE(offerWith({loopback, configurationOption({"l6proto=nubo", "txtvers=2"})}).service.isNull());
    EXPECT_THAT(
        log.debugs(),
        ElementsAre("Debug: Skip processing OFFER_SERVICE due to invalid TXT-record version: \"2\"!"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(IncomingEntriesTest, OfferWithoutVersionOrNameCannotBecomeARecord)
{
    EXPECT_TRUE(
        offerWith(offerOptionsWith({"l6proto=nubo", "otherserv=Media", "txtvers=1"})).service.isNull());
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to create service due to missing NuBo_Version!",
                            "Error: ServiceDiscovery failed to add Service due to Invalid argument"));

    EXPECT_TRUE(offerWith(offerOptionsWith({"l6proto=nubo", "txtvers=1", "version=1.0.0"})).service.isNull());
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to create service due to missing NuBo_Servicename!",
                            "Error: ServiceDiscovery failed to add Service due to Invalid argument"));
}

TEST_F(IncomingEntriesTest, OfferInAnEntryOfTheWrongClassIsRefused)
{
    EXPECT_TRUE(offer(entryOfWrongClass()).service.isNull());

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to handle OFFER_SERVICE due to Entry being of wrong class!"));
}

TEST_F(IncomingEntriesTest, FindBecomesTheRecordOfASearch)
{
    EXPECT_EQ(nameIn(find(Packets::firstEntryOf(Packets::find("Media")))), "Media");

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(IncomingEntriesTest, FindWithLoadBalancingIsAcceptedToo)
{
    EXPECT_EQ(nameIn(findWith({loadBalancingOption(), mediaName})), "Media");

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_P(RefusedFindTest, IsReportedWithTheReason)
{
    EXPECT_TRUE(findWith(GetParam().options).isNull());

    EXPECT_THAT(log.lines(), ElementsAre(GetParam().line));
}

INSTANTIATE_TEST_SUITE_P(
    Options, RefusedFindTest,
    ::testing::Values(
        RefusalCase{"NoOptions", {}, findCount(0)},
        RefusalCase{"ThreeOptions", {mediaName, loadBalancingOption(), loadBalancingOption()}, findCount(3)},
        RefusalCase{"NoConfiguration", {loadBalancingOption()}, findTypes},
        RefusalCase{"SecondConfiguration", {mediaName, mediaName}, findTypes},
        RefusalCase{"EndpointBeside", {mediaName, ipv6Option()}, findTypes},
        RefusalCase{"OptionOfUnknownType", {mediaName, optionOfUnknownType()}, findTypes},
        RefusalCase{"NoName",
                    {configurationOption({"l6proto=nubo", "txtvers=1"})},
                    "Error: Failed to handle FIND_SERVICE due to missing name record in Configuration "
                    "Option!"}),
    rowName);

TEST_F(IncomingEntriesTest, FindWithSeveralNamesIsReadWithTheFirstAndAWarning)
{
    EXPECT_EQ(nameIn(findWith({configurationOption({"otherserv=Media", "otherserv=Navi"})})), "Media");

    EXPECT_THAT(log.lines(), ElementsAre("Warning: Found multiple names while handling FIND_SERVICE "
                                         "Configuration Option, using first: \"Media\" !"));
}

TEST_F(IncomingEntriesTest, FindInAnEntryOfTheWrongClassIsRefused)
{
    EXPECT_TRUE(find(entryOfWrongClass()).isNull());

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to handle FIND_SERVICE due to Entry being of wrong class!"));
}

TEST_F(IncomingEntriesTest, TextNamesTheEntryAndItsOptions)
{
    const SOME_IP_SD_Header::EntryData data = Packets::firstEntryOf(Packets::find("Media"));

    EXPECT_EQ(IncomingEntries::toText(data),
              data.entry->toString(0) + ", " + data.options.front()->toString(0));
    EXPECT_EQ(IncomingEntries::toText({}), "<no Entry>");
}

}  // namespace Nubo::ServiceDiscovery::Testing
