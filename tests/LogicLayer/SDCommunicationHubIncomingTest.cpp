#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/Packets.h"
#include "support/TestUnit.h"

#include <Poco/Exception.h>

#include <cstddef>
#include <stdexcept>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::configurationOption;
using Packets::ipv6Option;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::StartsWith;

namespace {

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

    bool find(const std::string& bytes) { return find(Packets::firstEntryOf(bytes)); }
    bool find(const SOME_IP_SD_Header::EntryData& data)
    {
        SDRequestHandler::FindServicePayload payload{data, origin, false};
        log.clear();
        unit.hub.onFindServiceReceived(payload);
        return payload.result;
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
    offer(Packets::packet(Packets::Entry{"01", "00 01 11", "00 07", "00 01 02"}.bytes(),
                          ipv6Option() + Packets::offerConfiguration("Media")));

    ServicesContainer aperiodic;
    ServicesContainer periodic;
    unit.hub.m_statemachine.unsafe_findServices(ServiceIdentity(), aperiodic, periodic);
    EXPECT_THAT(summaries(periodic), ElementsAre("Media DISCOVERED MAIN_PHASE #1"));
    EXPECT_EQ(periodic.front()->getTTL(), 0x102u);
}

TEST_F(SDCommunicationHubIncomingTest, OfferThatCannotBeReadIsRefused)
{
    EXPECT_FALSE(offer(Packets::packetWith("01", {})));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: Failed to handle OFFER_SERVICE due to invalid amount of "
                            "Options: 0/[1-4]!"));
    EXPECT_THAT(unit.registry.events(), IsEmpty());
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

TEST_F(SDCommunicationHubIncomingTest, FindWithSeveralNamesGoesOnWithTheFirstAndAWarning)
{
    announce("Media");

    EXPECT_TRUE(
        find(Packets::packetWith("00", {configurationOption({"otherserv=Media", "otherserv=Navi"})})));

    EXPECT_THAT(log.complaints(), ElementsAre("Warning: Found multiple names while handling FIND_SERVICE "
                                              "Configuration Option, using first: \"Media\" !"));
    EXPECT_THAT(log.traces(),
                Contains("Trace: SDStateMachine::handleFIND: add \"Media\" #1 as new Announced|once."));
}

TEST_F(SDCommunicationHubIncomingTest, FindThatCannotBeReadIsRefused)
{
    announce("Media");

    EXPECT_FALSE(find(Packets::packetWith("00", {})));

    EXPECT_THAT(log.complaints(), ElementsAre("Error: Failed to handle FIND_SERVICE due to invalid amount of "
                                              "Options: 0/[1-2]!"));
    EXPECT_THAT(log.notices(), IsEmpty());
}

TEST_F(SDCommunicationHubIncomingTest, PocoExceptionAtAFindIsCaughtAndLogged)
{
    unit.hub.m_statemachine.unsafe_addPeriodicService(nullptr);

    EXPECT_FALSE(find(Packets::find("Media")));

    EXPECT_THAT(log.complaints(),
                ElementsAre("Error: ServiceDiscovery failed to add Service due to Null pointer"));
}

}  // namespace Nubo::ServiceDiscovery::Testing
