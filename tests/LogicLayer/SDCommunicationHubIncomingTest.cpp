#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Eventgroup.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/TestUnit.h"

#include <Poco/Exception.h>

#include <ostream>
#include <stdexcept>
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
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

/// Opens the hub's state machine.
template <auto member>
struct StateMachine
{
    friend SDStateMachine& stateMachineOf(SDCommunicationHub& hub) { return hub.*member; }
};
template struct StateMachine<&SDCommunicationHub::m_statemachine>;
SDStateMachine& stateMachineOf(SDCommunicationHub& hub);

/// Opens what the state machine knows.
template <auto member>
struct Index
{
    friend const RecordIndex& indexOf(const SDStateMachine& machine) { return machine.*member; }
};
template struct Index<&SDStateMachine::m_index>;
const RecordIndex& indexOf(const SDStateMachine& machine);

constexpr auto offerType = "01";
constexpr auto findType = "00";

struct SDCommunicationHubIncomingTest : ::testing::Test
{
    /// Hands the first entry of a packet to the hub as the request handler does; returns the payload's
    /// result.
    bool offer(const std::string& bytes) { return offer(Packets::firstEntryOf(bytes)); }
    bool offer(const SOME_IP_SD_Header::EntryData& data)
    {
        SDRequestHandler::OfferServicePayload payload{data, origin, false};
        log.clear();
        unit.hub.onOfferServiceReceived(payload);
        return payload.result;
    }
    bool offerWith(const std::vector<std::string>& options)
    {
        return offer(Packets::packetWith(offerType, options));
    }

    bool find(const std::string& bytes) { return find(Packets::firstEntryOf(bytes)); }
    bool find(const SOME_IP_SD_Header::EntryData& data)
    {
        SDRequestHandler::FindServicePayload payload{data, origin, false};
        log.clear();
        unit.hub.onFindServiceReceived(payload);
        return payload.result;
    }
    bool findWith(const std::vector<std::string>& options)
    {
        return find(Packets::packetWith(findType, options));
    }

    void announce(const std::string& name)
    {
        SDService::Ptr service = makeService(name);
        unit.hub.addService(service);
    }

    const Poco::Net::SocketAddress origin{Packets::otherUnitOrigin};
    HubUnit unit;
    LogCatcher log;
};

SOME_IP_SD_Header::EntryData entryOfWrongClass()
{
    SOME_IP_SD_Entry::CommonFields fields;
    fields.type = EntryType::SUBSCRIBE;
    return {new SOME_IP_SD_Entry_Eventgroup(fields, false, 0, 0), {}};
}

/// Options by which an entry is refused or passed over, and the one line that says why.
struct RefusalCase
{
    const char* name;
    std::vector<std::string> options;
    std::string line;

    friend void PrintTo(const RefusalCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDCommunicationHubRefusedOfferTest : SDCommunicationHubIncomingTest,
                                            ::testing::WithParamInterface<RefusalCase>
{};

struct SDCommunicationHubSkippedOfferTest : SDCommunicationHubIncomingTest,
                                            ::testing::WithParamInterface<RefusalCase>
{};

struct SDCommunicationHubRefusedFindTest : SDCommunicationHubIncomingTest,
                                           ::testing::WithParamInterface<RefusalCase>
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

TEST_F(SDCommunicationHubIncomingTest, OfferIsDiscoveredWithEverythingThatItTells)
{
    const std::string options = ipv6Option("fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 12") +
                                configurationOption({"category=audio", "l6proto=nubo", "otherserv=Media",
                                                     "txtvers=1", "version=1.0.0", "version=~1.2.0"});

    EXPECT_TRUE(offer(Packets::packet(Packets::Entry().bytes(), options)));

    const auto events = unit.registry.events();
    ASSERT_THAT(events, SizeIs(1));
    EXPECT_EQ(events[0].type, ServiceDiscovery::EventType::SERVICE_DISCOVERED);
    const NuboServiceDescription& description = events[0].description;
    EXPECT_EQ(description.getName(), "Media");
    EXPECT_THAT(description.getVersions(), ElementsAre("1.0.0", "~1.2.0"));
    EXPECT_THAT(description.getCategories(), ElementsAre("audio"));
    EXPECT_EQ(description.getIpAddressString(), "fd00::12");
    EXPECT_EQ(description.getPort(), 8080);
    EXPECT_EQ(description.getL4Proto(), OptionL4Protocol::TCP);
    EXPECT_EQ(description.getUri(), "http://[fd00::12]:8080/Media/");
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubIncomingTest, UnspecifiedAddressIsASenderWithAShareLikeAnyOther)
{
    const Poco::Net::SocketAddress unspecified("[::]:30491");
    const std::size_t share = SDStateMachine::mostInstances / 2;
    const std::string configuration = Packets::offerConfiguration("Media");
    std::string endpoint = Packets::ipv6Option();

    for (std::size_t port = 1; port <= share + 10; ++port) {
        const std::string bytes = Packets::bigEndian16(port);
        endpoint.replace(endpoint.size() - bytes.size(), bytes.size(), bytes);
        SDRequestHandler::OfferServicePayload payload{
            Packets::firstEntryOf(Packets::packet(Packets::Entry{}.bytes(), endpoint + configuration)),
            unspecified, false};
        unit.hub.onOfferServiceReceived(payload);
    }

    EXPECT_EQ(unit.registry.discovered("Media"), share);
}

TEST_F(SDCommunicationHubIncomingTest, UnspecifiedAddressIsNoUnitsAddress)
{
    SDRequestHandler::OfferServicePayload payload{Packets::firstEntryOf(Packets::offer("Media")),
                                                  Poco::Net::SocketAddress("[::]:30491"), false};

    unit.hub.onOfferServiceReceived(payload);

    const RecordIndex& index = indexOf(stateMachineOf(unit.hub));
    const NameEntries* const media = index.find("Media");
    ASSERT_TRUE(media);
    const SDService::SenderAddress sender = (*media->discovered.front())->getSender();
    EXPECT_EQ(sender.front(), 0xff) << "of multicast, from which nothing can come";
}

TEST_F(SDCommunicationHubIncomingTest, OfferIsLoggedWithItsOriginAndEntry)
{
    offer(Packets::offer("Media"));

    EXPECT_THAT(log.traces().front(),
                StartsWith("Trace: onOfferServiceReceived - origin([fd00::2]:30491)  OfferService: " +
                           Packets::firstEntryOf(Packets::offer("Media")).entry->toString(0)));
}

TEST_F(SDCommunicationHubIncomingTest, OfferWithTTLZeroEndsTheService)
{
    offer(Packets::offer("Media"));

    EXPECT_TRUE(offer(Packets::stopOffer("Media")));

    EXPECT_EQ(unit.registry.gone("Media"), 1u);
    EXPECT_THAT(log.traces(), Contains("Trace: SDStateMachine::handleSTOPOFFER: remove Discovered|main "
                                       "\"Media\" with instance #1"));
}

TEST_F(SDCommunicationHubIncomingTest, RecordHasTheEntrysTimeToLiveAndTheStateMachinesNumber)
{
    offer(
        Packets::packet(Packets::Entry{"01", "00 01 11", "00 07", "00 01 02"}.bytes(), ipv6Option() + media));

    ServicesContainer aperiodic;
    ServicesContainer periodic;
    stateMachineOf(unit.hub).unsafe_findServices(ServiceIdentity(), aperiodic, periodic);
    EXPECT_THAT(summaries(periodic), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_EQ(periodic.front()->getTTL(), 0x102u);
}

TEST_F(SDCommunicationHubIncomingTest, AllFourKindsOfOptionsAreAcceptedInAnyOrder)
{
    EXPECT_TRUE(offerWith({loadBalancingOption(), media, ipv4Option(), ipv6Option()}));

    EXPECT_EQ(unit.registry.discovered("Media"), 1u);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubIncomingTest, OfferWithOneOfTheOptionalOptionsIsAccepted)
{
    EXPECT_TRUE(offerWith({ipv6Option(), media, loadBalancingOption()}));
    EXPECT_TRUE(offerWith({ipv4Option(), ipv6Option(), offerConfiguration("Navi")}));

    EXPECT_EQ(unit.registry.discovered("Media"), 1u);
    EXPECT_EQ(unit.registry.discovered("Navi"), 1u);
}

TEST_P(SDCommunicationHubRefusedOfferTest, OfferIsRefused)
{
    EXPECT_FALSE(offerWith(GetParam().options));

    EXPECT_THAT(log.complaints(), ElementsAre(GetParam().line));
    EXPECT_THAT(unit.registry.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Options, SDCommunicationHubRefusedOfferTest,
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

TEST_F(SDCommunicationHubIncomingTest, OptionsThatWereFoundAreListedInAFixedOrder)
{
    offerWith({loadBalancingOption(), ipv4Option(), media});
    EXPECT_THAT(log.traces(),
                Contains("Trace: Found Options: IPv4 Option Configuration Option LoadBalancing Option"));

    offerWith({ipv6Option(), optionOfUnknownType()});
    EXPECT_THAT(log.traces(), Contains("Trace: Found Options: IPv6 Option"));

    offerWith({optionOfUnknownType(), optionOfUnknownType()});
    EXPECT_THAT(log.traces(), Contains("Trace: Found Options:"));
}

TEST_P(SDCommunicationHubSkippedOfferTest, OfferOfAnotherProtocolIsPassedOverWithoutComplaint)
{
    EXPECT_FALSE(offerWith(GetParam().options));

    EXPECT_THAT(log.debugs(), ElementsAre(GetParam().line));
    EXPECT_THAT(log.complaints(), IsEmpty());
    EXPECT_THAT(unit.registry.events(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Configurations, SDCommunicationHubSkippedOfferTest,
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

TEST_F(SDCommunicationHubIncomingTest, OfferWithSeveralFaultsIsPassedOverForTheFirst)
{
    const std::string loopback = ipv6Option("00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01");

    EXPECT_FALSE(offerWith({loopback, configurationOption({"l6proto=other", "txtvers=2"})}));
    EXPECT_THAT(
        log.debugs(),
        ElementsAre("Debug: Skip processing OFFER_SERVICE due to invalid Applicationprotocol: \"other\"!"));
    EXPECT_THAT(log.complaints(), IsEmpty());

    EXPECT_FALSE(offerWith({loopback, configurationOption({"l6proto=nubo", "txtvers=2"})}));
    EXPECT_THAT(
        log.debugs(),
        ElementsAre("Debug: Skip processing OFFER_SERVICE due to invalid TXT-record version: \"2\"!"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubIncomingTest, OfferWithoutVersionOrNameCannotBecomeARecord)
{
    EXPECT_FALSE(offerWith(offerOptionsWith({"l6proto=nubo", "otherserv=Media", "txtvers=1"})));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to create service due to missing NuBo_Version!",
                            "Error: ServiceDiscovery failed to add Service due to Invalid argument"));

    EXPECT_FALSE(offerWith(offerOptionsWith({"l6proto=nubo", "txtvers=1", "version=1.0.0"})));
    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to create service due to missing NuBo_Servicename!",
                            "Error: ServiceDiscovery failed to add Service due to Invalid argument"));
}

TEST_F(SDCommunicationHubIncomingTest, OfferInAnEntryOfTheWrongClassIsRefused)
{
    EXPECT_FALSE(offer(entryOfWrongClass()));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to handle OFFER_SERVICE due to Entry being of wrong class!"));
}

TEST_F(SDCommunicationHubIncomingTest, OfferCountsAsHandledEvenIfTheStateMachineDidNotTakeItIn)
{
    unit.registry.givesUuids = false;

    EXPECT_TRUE(offer(Packets::offer("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: Failed to handle OFFER_SERVICE due Service Registry "
                                              "Notification not returning a UUID!"));
}

TEST_F(SDCommunicationHubIncomingTest, PocoExceptionOfASubscriberIsCaughtAndLogged)
{
    unit.registry.onEvent = [](auto&) { throw Poco::IOException("registry is gone"); };

    EXPECT_FALSE(offer(Packets::offer("Media")));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: ServiceDiscovery failed to add Service due to I/O "
                                              "error: registry is gone"));
}

TEST_F(SDCommunicationHubIncomingTest, OtherExceptionOfASubscriberPassesToTheRequestHandler)
{
    unit.registry.onEvent = [](auto&) { throw std::runtime_error("registry is gone"); };

    EXPECT_THROW(offer(Packets::offer("Media")), std::runtime_error);

    unit.registry.onEvent = nullptr;
    EXPECT_TRUE(offer(Packets::offer("Media"))) << "the state machine can be used on";
    EXPECT_EQ(unit.registry.discovered("Media"), 1u);
}

TEST_F(SDCommunicationHubIncomingTest, FindOfAnAnnouncedServiceIsAnswered)
{
    announce("Media");

    EXPECT_TRUE(find(Packets::find("Media")));

    EXPECT_THAT(log.traces(),
                Contains("Trace: SDStateMachine::handleFIND: add \"Media\" #1 as new Announced|once."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubIncomingTest, FindIsLoggedWithItsOriginAndEntry)
{
    find(Packets::find("Media"));

    EXPECT_THAT(log.traces().front(),
                StartsWith("Trace: onFindServiceReceived - origin([fd00::2]:30491) FindService: " +
                           Packets::firstEntryOf(Packets::find("Media")).entry->toString(0)));
}

TEST_F(SDCommunicationHubIncomingTest, FindOfAnUnknownServiceCountsAsHandled)
{
    EXPECT_TRUE(find(Packets::find("Media")));

    EXPECT_THAT(log.traces(), Contains("Trace: SDStateMachine::handleFIND: SD received FIND_SERVICE for "
                                       "\"Media\", which is unknown."));
}

TEST_F(SDCommunicationHubIncomingTest, FindWithLoadBalancingIsAcceptedToo)
{
    announce("Media");

    EXPECT_TRUE(findWith({loadBalancingOption(), mediaName}));

    EXPECT_THAT(log.notices(), SizeIs(1));
}

TEST_P(SDCommunicationHubRefusedFindTest, FindIsRefused)
{
    announce("Media");

    EXPECT_FALSE(findWith(GetParam().options));

    EXPECT_THAT(log.complaints(), ElementsAre(GetParam().line));
    EXPECT_THAT(log.notices(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Options, SDCommunicationHubRefusedFindTest,
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

TEST_F(SDCommunicationHubIncomingTest, FindWithSeveralNamesGoesOnWithTheFirstAndAWarning)
{
    announce("Media");

    EXPECT_TRUE(findWith({configurationOption({"otherserv=Media", "otherserv=Navi"})}));

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: Found multiple names while handling FIND_SERVICE "
                                              "Configuration Option, using first: \"Media\" !"));
    EXPECT_THAT(log.traces(),
                Contains("Trace: SDStateMachine::handleFIND: add \"Media\" #1 as new Announced|once."));
}

TEST_F(SDCommunicationHubIncomingTest, PocoExceptionAtAFindIsCaughtAndLogged)
{
    stateMachineOf(unit.hub).unsafe_addPeriodicService(nullptr);

    EXPECT_FALSE(find(Packets::find("Media")));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: ServiceDiscovery failed to add Service due to Null pointer"));
}

TEST_F(SDCommunicationHubIncomingTest, FindInAnEntryOfTheWrongClassIsRefused)
{
    EXPECT_FALSE(find(entryOfWrongClass()));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to handle FIND_SERVICE due to Entry being of wrong class!"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
