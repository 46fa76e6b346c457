#include "DataLayer/SDClock.h"
#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/MediaOffer.h"
#include "support/Packets.h"
#include "support/Process.h"
#include "support/TestUnit.h"
#include "support/Times.h"

#include <Poco/Delegate.h>
#include <Poco/Exception.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Type = SDService::Type;
using Poco::Net::IPAddress;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

namespace {

constexpr auto missingDispatcher = "Can not start MulticastReceiver, OEM-Dispatcher is not available!";
constexpr Poco::Clock::ClockDiff second = 1000000;

struct SDCommunicationHubTest : ::testing::Test
{
    bool add(const NuboServiceDescription& description)
    {
        SDService::Ptr service = makeService(description);
        return unit.hub.addService(service);
    }

    bool find(const std::string& name)
    {
        SDService::Ptr service = new SDService(name);
        return unit.hub.findService(service);
    }

    void receive(const std::string& bytes)
    {
        MulticastDataPtr message = Packets::datagram(bytes);
        unit.hub.onMessageReceived(message);
    }

    void receiveMany(std::size_t count)
    {
        for (std::size_t i = 0; i < count; ++i)
            receive("01"_bytes);
    }

    HubUnit unit;
    LogCatcher log;
};

struct UnsendableCase
{
    const char* name;
    void (*change)(NuboServiceDescription&);

    friend void PrintTo(const UnsendableCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDCommunicationHubUnsendableTest : SDCommunicationHubTest,
                                          ::testing::WithParamInterface<UnsendableCase>
{};

}  // namespace

TEST(SDCommunicationHubConstructionTest, WithoutADispatcherThereIsNoHub)
{
    const PlatformScope platform;
    ServiceDiscovery facade;
    PlatformScope::withdraw();
    const std::size_t descriptors = openDescriptors();

    try {
        const SDCommunicationHub hub(facade);
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.message(), missingDispatcher);
        EXPECT_STREQ(exception.name(), "Exception");
    }
    EXPECT_EQ(openDescriptors(), descriptors);
}

TEST(SDCommunicationHubConstructionTest, NullDispatcherIsAnErrorInTheLogAndLeavesAHubWithoutInterfaces)
{
    const PlatformScope platform;
    ServiceDiscovery facade;
    PlatformScope::offerNull();
    const LogCatcher log;

    const SDCommunicationHub hub(facade);

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDCommunicationHub - OEM Dispatcher missing, no interface will be reported!"));
}

TEST(SDCommunicationHubConstructionTest, InterfaceThatGoesWhileTheStandingOnesAreReportedIsTakenBack)
{
    PlatformScope platformOfTheFacade;
    ServiceDiscovery facade;
    PlatformScope platform;
    platform.dispatcher().addInterface("absent0", "fd00::1");
    LogCatcher log;
    log.onLine([&](const std::string& line) {
        if (line.find("did not join") != std::string::npos)
            platform.dispatcher().removeInterface("absent0", "fd00::1");
    });

    const SDCommunicationHub hub(facade);

    EXPECT_THAT(log.warnings(), ElementsAre("Warning: Failed to leave IPv6 Multicast Group on Interface "
                                            "\"absent0\" with IP \"fd00::1\": not joined(?)",
                                            "Warning: Failed to remove Interface \"absent0\" with IP "
                                            "\"fd00::1\" for sending: not connected(?)"));
}

TEST(SDCommunicationHubConstructionTest, InterfacesThatStandReportedReachReceiverAndSender)
{
    PlatformScope platformOfTheFacade;
    ServiceDiscovery facade;
    PlatformScope platform;
    platform.dispatcher().addInterface("absent0", "fd00::1");
    const LogCatcher log;

    const SDCommunicationHub hub(facade);

    EXPECT_FALSE(hub.isRunning());
    EXPECT_THAT(log.lines(), ElementsAre("Debug: ServiceDiscovery did not join IPv6 Multicast Group on "
                                         "Interface \"absent0\" with IP \"fd00::1\": not present.",
                                         "Debug: ServiceDiscovery did not add Interface \"absent0\" with IP "
                                         "\"fd00::1\" for sending: not present."));
}

TEST_F(SDCommunicationHubTest, ReportsReachTheReceiverFirstAndThenTheSender)
{
    unit.platform.dispatcher().addInterface("absent0", "fd00::1");
    unit.platform.dispatcher().removeInterface("absent0", "fd00::1");

    EXPECT_THAT(log.lines(), ElementsAre("Debug: ServiceDiscovery did not join IPv6 Multicast Group on "
                                         "Interface \"absent0\" with IP \"fd00::1\": not present.",
                                         "Debug: ServiceDiscovery did not add Interface \"absent0\" with IP "
                                         "\"fd00::1\" for sending: not present.",
                                         "Warning: Failed to leave IPv6 Multicast Group on Interface "
                                         "\"absent0\" with IP \"fd00::1\": not joined(?)",
                                         "Warning: Failed to remove Interface \"absent0\" with IP "
                                         "\"fd00::1\" for sending: not connected(?)"));
}

TEST(SDCommunicationHubConstructionTest, HubThatIsGoneGetsNoReports)
{
    PlatformScope platformOfTheFacade;
    ServiceDiscovery facade;
    PlatformScope platform;
    auto hub = std::make_unique<SDCommunicationHub>(facade);
    hub.reset();
    const LogCatcher log;

    platform.dispatcher().addInterface("absent0", "fd00::1");
    platform.dispatcher().removeInterface("absent0", "fd00::1");

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(SDCommunicationHubTest, AddedServiceIsHandedToTheStateMachineAsAnAddition)
{
    EXPECT_TRUE(add(describe("Media")));
    EXPECT_FALSE(add(describe("Media")));

    EXPECT_THAT(log.notices(), ElementsAre("Notice: SD Announcement of Service http://[fd00::1]:8080/Media/ "
                                           "(Media v1.0.X) startet, due to addition by ServiceRegistry."));
    EXPECT_THAT(log.errors(), ElementsAre("Error: SDStateMachine::handlePUT found 1 duplicate Service(s)!"));
}

TEST_F(SDCommunicationHubTest, WantedServiceIsHandedToTheStateMachineAsASearch)
{
    EXPECT_TRUE(find("Media"));

    EXPECT_THAT(log.notices(), ElementsAre("Notice: SD Finding of Service Media startet, due to GET request "
                                           "to ServiceRegistry."));
}

TEST_F(SDCommunicationHubTest, RemovedServiceIsHandedToTheStateMachineByItsIdentifier)
{
    add(describe("Media", "fd00::1", 8080, "id"));

    EXPECT_FALSE(unit.hub.removeService("other"));
    EXPECT_TRUE(unit.hub.removeService("id"));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: SD failed to delete Service with local UUID \"other\", none found!"));
}

TEST_F(SDCommunicationHubTest, RequestsWithoutARecordOrAnIdentifierAreRefused)
{
    SDService::Ptr none;

    EXPECT_FALSE(unit.hub.addService(none));
    EXPECT_FALSE(unit.hub.findService(none));
    EXPECT_FALSE(unit.hub.removeService(""));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID.",
                    "Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID.",
                    "Error: SDStateMachine::onExternalEvent: received nullptr Service or empty UUID."));
}

TEST_F(SDCommunicationHubTest, PacketOfTheTrialIsKeptForTheFirstInstance)
{
    SDService::Ptr first = makeService("Media");
    SDService::Ptr second = makeService("Media", "fd00::1", 9000);

    EXPECT_TRUE(unit.hub.addService(first));
    EXPECT_TRUE(unit.hub.addService(second));

    EXPECT_NE(first->getPacket(), "");
    EXPECT_EQ(second->getInstanceId(), 2);
    EXPECT_EQ(second->getPacket(), "") << "it has another number now";
}

TEST_F(SDCommunicationHubTest, ServiceWhosePacketFillsTheMTUIsAdded)
{
    EXPECT_TRUE(add(describeInPacketOf(1212)));

    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubTest, ServiceWhosePacketExceedsTheMTUIsRefused)
{
    NuboServiceDescription description = describeInPacketOf(1213);
    description.setLocalUuid("id");

    EXPECT_FALSE(add(description));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: SDCommunicationHub - Service \"Media\" cannot be put on the wire: its "
                            "packet of 1213 Bytes exceeds the MTU of 1212 Bytes!"));
    EXPECT_FALSE(unit.hub.removeService("id")) << "it was not added";
}

TEST_F(SDCommunicationHubTest, ServiceWithTheLongestConfigurationIsRefusedToo)
{
    EXPECT_FALSE(add(describeInPacketOf(65600)));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: SDCommunicationHub - Service \"Media\" cannot be put on the wire: its "
                            "packet of 65600 Bytes exceeds the MTU of 1212 Bytes!"));
}

TEST_P(SDCommunicationHubUnsendableTest, ServiceThatNoPacketCanHoldIsNotAdded)
{
    NuboServiceDescription description = describe("Media", "fd00::1", 8080, "id");
    GetParam().change(description);

    EXPECT_FALSE(add(description));

    EXPECT_THAT(log.errors(), Not(IsEmpty()));
    EXPECT_EQ(log.errors().back(), "Error: SDCommunicationHub - Service \"" + description.getName() +
                                       "\" cannot be put on the wire: Runtime exception: Failed to create SD "
                                       "packet");
    EXPECT_THAT(log.notices(), IsEmpty());
    EXPECT_FALSE(unit.hub.removeService("id")) << "it was not added";
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, SDCommunicationHubUnsendableTest,
    ::testing::Values(
        UnsendableCase{"NameWithAnEqualsSign", [](NuboServiceDescription& d) { d.setName("a=b"); }},
        UnsendableCase{"NameOutsideASCII", [](NuboServiceDescription& d) { d.setName("M\xc3\xbcnchen"); }},
        UnsendableCase{"NameWithALeadingBlank", [](NuboServiceDescription& d) { d.setName(" Media"); }},
        UnsendableCase{"NameTooLong", [](NuboServiceDescription& d) { d.setName(std::string(246, 'x')); }},
        UnsendableCase{"CategoryTooLong",
                       [](NuboServiceDescription& d) { d.addCategory(std::string(247, 'x')); }},
        UnsendableCase{"IPv4Address",
                       [](NuboServiceDescription& d) { d.setIpAddress(IPAddress("10.0.0.1")); }},
        UnsendableCase{"NoProtocol",
                       [](NuboServiceDescription& d) { d.setL4Proto(OptionL4Protocol::NONE); }}),
    [](const auto& row) { return row.param.name; });

TEST_F(SDCommunicationHubTest, ServiceWithTheLongestNameIsAddedAndSearchedFor)
{
    const std::string name(245, 'x');

    EXPECT_TRUE(add(describe(name)));
    EXPECT_TRUE(find(name));

    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubTest, ServiceThatNoPacketCanHoldIsNotSearchedFor)
{
    EXPECT_FALSE(find("a=b"));

    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromPairs: invalid Configuration-value detected: 'a=b'!",
                            "Error: Failed to create SD packet - Exception",
                            "Error: SDCommunicationHub - Service \"a=b\" cannot be put on the wire: Runtime "
                            "exception: Failed to create SD packet"));
    EXPECT_THAT(log.notices(), IsEmpty());
}

TEST_F(SDCommunicationHubTest, ServiceWithoutANameIsNeitherAddedNorSearchedFor)
{
    EXPECT_FALSE(add(describe("")));
    EXPECT_FALSE(find(""));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDCommunicationHub - a Service without a name cannot be put on the wire!",
                    "Error: SDCommunicationHub - a Service without a name cannot be put on the wire!"));
}

TEST_F(SDCommunicationHubTest, SessionIDsRunFromOneTo0xFFFEAndStartAgainAtOne)
{
    for (unsigned expected = 1; expected <= 0xfffe; ++expected)
        ASSERT_EQ(unit.hub.m_outgoing.nextSessionID(), expected);

    EXPECT_EQ(unit.hub.m_outgoing.nextSessionID(), 1);
    EXPECT_EQ(unit.hub.m_outgoing.nextSessionID(), 2);
}

TEST_F(SDCommunicationHubTest, TrialPacketsOfAddedAndSearchedServicesTakeNoSessionID)
{
    add(describe("Media"));
    add(describeInPacketOf(1213));
    find("Navi");

    EXPECT_EQ(unit.hub.m_outgoing.nextSessionID(), 1);
}

TEST_F(SDCommunicationHubTest, AnnouncedPacketsTakeASessionIDEach)
{
    unit.hub.announce({makeRecord(Type::ANNOUNCED, SDService::State::MAIN_PHASE),
                       makeRecord(Type::WANTED, SDService::State::REPETITION_PHASE)});
    unit.hub.announce(makeRecord(Type::ANNOUNCED, SDService::State::MAIN_PHASE));

    EXPECT_EQ(unit.hub.m_outgoing.nextSessionID(), 4);
}

TEST_F(SDCommunicationHubTest, SingleAnnouncementIsAListOfOne)
{
    unit.hub.announce(makeRecord(Type::ANNOUNCED, SDService::State::MAIN_PHASE));

    EXPECT_THAT(log.traces(), ElementsAre("Trace: SDCommunicationHub::announce(single)",
                                          "Trace: SDCommunicationHub::announce"));
}

TEST_F(SDCommunicationHubTest, EmptyListIsWarnedOfAndNotSent)
{
    unit.hub.announce(std::vector<SDService::Ptr>());

    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDCommunicationHub::announce",
                                         "Warning: SDCommunicationHub - received empty list to announce!"));
}

TEST_F(SDCommunicationHubTest, RecordWithoutARoleEndsTheAnnouncementUnsent)
{
    for (const Type::Type_t type : {Type::NONE, Type::ANY}) {
        SCOPED_TRACE(type);
        log.clear();

        unit.hub.announce({makeRecord(Type::ANNOUNCED, SDService::State::MAIN_PHASE),
                           makeRecord(type, SDService::State::MAIN_PHASE)});

        EXPECT_THAT(log.complaints(),
                    ElementsAre("Error: Failed to create SD packet - Invalid argument",
                                "Error: SDCommunicationHub - Exception caught while announcing services! "
                                "(Runtime exception: Failed to create SD packet"));
    }
}

TEST_F(SDCommunicationHubTest, RecordWhosePacketIsLargerThanTheMTUIsNotSent)
{
    unit.hub.announce(serviceOfSize(1213));

    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - Exception caught while announcing "
                                          "services! (Bad data format: SD packet exceeds the MTU"));
}

TEST_F(SDCommunicationHubTest, NullRecordEndsTheAnnouncementUnsent)
{
    unit.hub.announce({makeRecord(Type::ANNOUNCED, SDService::State::MAIN_PHASE), SDService::Ptr()});

    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDCommunicationHub - Exception caught while announcing "
                                              "services! (Null pointer"));
}

TEST_F(SDCommunicationHubTest, ReceivedDatagramIsLoggedWithItsSender)
{
    receive("01"_bytes);

    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDCommunicationHub::onMessageReceived - message received "
                                         "from [fd00::2]:30491"));
}

TEST_F(SDCommunicationHubTest, EmptyMessagesAreDroppedWithAWarning)
{
    MulticastDataPtr none;

    receive("");
    unit.hub.onMessageReceived(none);

    EXPECT_THAT(log.warnings(), ElementsAre("Warning: SDCommunicationHub - empty message received!",
                                            "Warning: SDCommunicationHub - empty message received!"));
}

TEST_F(SDCommunicationHubTest, MessagesBeyondTenThousandAreDroppedAndCountedOnceASecond)
{
    receiveMany(10000);
    EXPECT_THAT(log.complaints(), IsEmpty());

    receiveMany(1);
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1 received Message(s), "
                                              "at most 10000 with 4194304 Bytes can wait!"));

    receiveMany(6);
    EXPECT_THAT(log.complaints(), SizeIs(1));

    SDClock::turn(second);
    receiveMany(1);
    EXPECT_THAT(log.complaints(), ElementsAre("Warning: SDCommunicationHub - dropped 1 received Message(s), "
                                              "at most 10000 with 4194304 Bytes can wait!",
                                              "Warning: SDCommunicationHub - dropped 7 received Message(s), "
                                              "at most 10000 with 4194304 Bytes can wait!"));
}

TEST_F(SDCommunicationHubTest, DroppedMessagesAreReportedNoSoonerThanASecondAfterThoseBefore)
{
    receiveMany(10000);

    EXPECT_TRUE(inSomeRun([&] {
        SDClock::turn(second);
        receiveMany(1);
        const Poco::Clock reported = SDClock::now();
        EXPECT_THAT(log.complaints(), SizeIs(1));
        log.clear();

        turnTo(reported, 9 * second / 10);
        receiveMany(1);
        return log.complaints().empty();
    }));
}

TEST_F(SDCommunicationHubTest, NotificationRaisesTheFacadesEventOnTheCallingThread)
{
    struct Subscriber
    {
        void onServiceListChanged(const void* from, ServiceDiscovery::ServiceListEventPayload& payload)
        {
            sender = from;
            thread = std::this_thread::get_id();
            payload.setLocalUuid("given");
        }

        const void* sender = nullptr;
        std::thread::id thread;
    };
    Subscriber subscriber;
    unit.facade.ServiceListChanged += Poco::delegate(&subscriber, &Subscriber::onServiceListChanged);
    const NuboServiceDescription description = describe("Media");
    ServiceDiscovery::ServiceListEventPayload payload(ServiceDiscovery::EventType::SERVICE_GONE, &description,
                                                      "id");

    unit.hub.notifyServiceRegistry(payload);
    unit.facade.ServiceListChanged -= Poco::delegate(&subscriber, &Subscriber::onServiceListChanged);

    EXPECT_EQ(subscriber.sender, &unit.facade);
    EXPECT_EQ(subscriber.thread, std::this_thread::get_id());
    EXPECT_EQ(payload.getLocalUuid(), "given") << "the subscriber's answer comes back";
    EXPECT_EQ(unit.registry.gone("Media"), 1u);
}

TEST_F(SDCommunicationHubTest, HubKnowsTheThreadThatIsInTheEvent)
{
    bool isOnThisThread = false;
    bool isOnAnotherThread = true;
    unit.registry.onEvent = [&](auto&) {
        isOnThisThread = EngineFrame::isOnThisThread();
        std::thread([&] { isOnAnotherThread = EngineFrame::isOnThisThread(); }).join();
    };
    const NuboServiceDescription description = describe("Media");
    ServiceDiscovery::ServiceListEventPayload payload(ServiceDiscovery::EventType::SERVICE_GONE,
                                                      &description);

    EXPECT_FALSE(EngineFrame::isOnThisThread());
    unit.hub.notifyServiceRegistry(payload);

    EXPECT_TRUE(isOnThisThread);
    EXPECT_FALSE(isOnAnotherThread);
    EXPECT_FALSE(EngineFrame::isOnThisThread());
}

TEST_F(SDCommunicationHubTest, SubscriberThatThrowsIsOutOfTheEvent)
{
    unit.registry.onEvent = [](auto&) { throw std::runtime_error("registry is gone"); };
    const NuboServiceDescription description = describe("Media");
    ServiceDiscovery::ServiceListEventPayload payload(ServiceDiscovery::EventType::SERVICE_GONE,
                                                      &description);

    EXPECT_THROW(unit.hub.notifyServiceRegistry(payload), std::runtime_error);

    EXPECT_FALSE(EngineFrame::isOnThisThread());
}

TEST_F(SDCommunicationHubTest, WithoutInterfacesNoAddressIsAnOwnOne)
{
    EXPECT_FALSE(unit.hub.isOwnOutgoingAddress(Poco::Net::SocketAddress("fd00::1", 30491)));
    EXPECT_FALSE(unit.hub.isOwnOutgoingAddress(Poco::Net::SocketAddress("::1", 1)));
}

TEST(SDCommunicationHubContainsIPTest, EmptyListContainsNothing)
{
    EXPECT_FALSE(SDCommunicationHub::containsIP({}, IPAddress("fd00::1"), "lo"));
}

TEST(SDCommunicationHubContainsIPTest, AddressIsFoundAnywhereInTheList)
{
    const Poco::Net::NetworkInterface::AddressList list{{IPAddress("10.0.0.1"), {}, {}},
                                                        {IPAddress("fd00::1"), {}, {}}};

    EXPECT_TRUE(SDCommunicationHub::containsIP(list, IPAddress("10.0.0.1"), "lo"));
    EXPECT_TRUE(SDCommunicationHub::containsIP(list, IPAddress("fd00::1"), "lo"));
    EXPECT_FALSE(SDCommunicationHub::containsIP(list, IPAddress("fd00::2"), "lo"));
}

TEST(SDCommunicationHubContainsIPTest, ScopedAddressIsFoundWithAndWithoutItsOwnInterfaceAsScope)
{
    const Poco::Net::NetworkInterface::AddressList list{{IPAddress("fe80::1%lo"), {}, {}}};

    EXPECT_TRUE(SDCommunicationHub::containsIP(list, IPAddress("fe80::1"), "lo"));
    EXPECT_TRUE(SDCommunicationHub::containsIP(list, IPAddress("fe80::1%lo"), "lo"));
    EXPECT_FALSE(SDCommunicationHub::containsIP(list, IPAddress("fe80::1"), "eth0"));
    EXPECT_FALSE(SDCommunicationHub::containsIP(list, IPAddress("fe80::2"), "lo"));
}

TEST(SDCommunicationHubContainsIPTest, MasksAndBroadcastAddressesAreNotCompared)
{
    const Poco::Net::NetworkInterface::AddressList list{
        {IPAddress("10.0.0.1"), IPAddress("255.0.0.0"), IPAddress("10.255.255.255")}};

    EXPECT_FALSE(SDCommunicationHub::containsIP(list, IPAddress("255.0.0.0"), "lo"));
    EXPECT_FALSE(SDCommunicationHub::containsIP(list, IPAddress("10.255.255.255"), "lo"));
}

TEST(SDCommunicationHubConstantsTest, InternalPortsAreAClosedRange)
{
    EXPECT_EQ(SDCommunicationHub::s_internalPortRange.lowerBoundary, 47000u);
    EXPECT_EQ(SDCommunicationHub::s_internalPortRange.upperBoundary, 49151u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
