#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/MediaOffer.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"

#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Poco::Net::IPAddress;
using Type = SDService::Type;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

const std::string fd01_1 = "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";
const std::string fe80_1 = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";

std::vector<std::vector<unsigned>> sessionsOf(const std::vector<Listener::Datagram>& datagrams)
{
    std::vector<std::string> bytes;
    for (const Listener::Datagram& datagram : datagrams)
        bytes.push_back(datagram.bytes);
    return Testing::sessionsOf(bytes);
}

/// A hub that runs on fd00::1 and has no interface yet.
struct SDCommunicationHubOutgoingTest : ::testing::Test
{
    SDCommunicationHubOutgoingTest()
    {
        EXPECT_TRUE(unit.hub.start(IPAddress("fd00::1")));
        log.clear();
    }
    ~SDCommunicationHubOutgoingTest() override { unit.hub.stop(); }

    /// Adds an interface. The listener hears what is sent on it.
    std::unique_ptr<Listener> addInterface(const std::string& name, const std::string& address)
    {
        network.link(name, address);
        unit.platform.dispatcher().addInterface(name, address);
        log.clear();
        return std::make_unique<Listener>(network.there, name);
    }

    void announce(const std::vector<SDService::Ptr>& services) { unit.hub.announce(services); }

    NetworkPair network;
    HubUnit unit;
    LogCatcher log;
};

/// The same with an interface.
struct AnnouncementTest : SDCommunicationHubOutgoingTest
{
    std::vector<std::vector<unsigned>> sessions() { return sessionsOf(listener->datagrams()); }

    std::unique_ptr<Listener> listener = addInterface("eth0", "fd00::1");
};

}  // namespace

TEST_F(AnnouncementTest, AnnouncedServiceIsOffered)
{
    unit.hub.announce(media());

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01")));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDCommunicationHub::announce(single)",
                                         "Trace: SDCommunicationHub::announce"));
}

TEST_F(AnnouncementTest, DatagramGoesToTheGroup)
{
    unit.hub.announce(media());

    ASSERT_THAT(listener->datagrams(), SizeIs(1));
    EXPECT_EQ(listener->datagrams().front().source, "fd00::1");
    EXPECT_EQ(listener->datagrams().front().destination, "ff14::4:0");
    EXPECT_EQ(listener->datagrams().front().hopLimit, 255u);
}

TEST_F(AnnouncementTest, EachInterfaceGetsTheSameNumbers)
{
    const auto second = addInterface("eth1", "fd01::1");

    unit.hub.announce(media());

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01")));
    EXPECT_THAT(second->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd01_1)));
}

TEST_F(SDCommunicationHubOutgoingTest, EachOfSeveralInterfacesAnnouncesItsOwnAddress)
{
    const auto first = addInterface("eth0", "fd01::1");
    const auto second = addInterface("eth1", "fe80::1");

    announce({media(), media()});
    announce({media()});

    EXPECT_THAT(first->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd01_1) + " " +
                                                offerOfMedia("00 02", "00 00 78", fd01_1),
                                            offerOfMedia("00 03", "00 00 78", fd01_1)));
    EXPECT_THAT(second->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fe80_1) + " " +
                                                 offerOfMedia("00 02", "00 00 78", fe80_1),
                                             offerOfMedia("00 03", "00 00 78", fe80_1)));
}

TEST_F(SDCommunicationHubOutgoingTest, OnlyInterfaceAnnouncesTheAddressOfTheUnit)
{
    const auto listener = addInterface("eth0", "fd01::1");

    unit.hub.announce(media());

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01")));
}

TEST_F(SDCommunicationHubOutgoingTest, ServiceAtAnotherAddressThanTheUnitsKeepsIt)
{
    const auto first = addInterface("eth0", "fd01::1");
    const auto second = addInterface("eth1", "fe80::1");
    const SDService::Ptr service = announcedService(describe("Media", "fd00::7"));
    const std::string fd00_7 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 07 ";

    unit.hub.announce(service);

    EXPECT_THAT(first->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd00_7)));
    EXPECT_THAT(second->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd00_7)));
}

TEST_F(SDCommunicationHubOutgoingTest, AddressOfTheLatestStartIsTheUnits)
{
    const SDService::Ptr service = announcedService(describe("Media", "fd00::7"));
    unit.hub.announce(service);
    const auto first = addInterface("eth0", "fd01::1");
    const auto second = addInterface("eth1", "fe80::1");
    unit.hub.stop();
    EXPECT_TRUE(unit.hub.start(IPAddress("fd00::7")));

    unit.hub.announce(service);

    EXPECT_THAT(first->bytes(), ElementsAre(offerOfMedia("00 02", "00 00 78", fd01_1)));
    EXPECT_THAT(second->bytes(), ElementsAre(offerOfMedia("00 02", "00 00 78", fe80_1)));
}

TEST_F(AnnouncementTest, PacketsShareADatagramInTheirOrder)
{
    announce({media(), media(), media()});

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01") + " " + offerOfMedia("00 02") + " " +
                                               offerOfMedia("00 03")));
}

TEST_F(AnnouncementTest, InternalServiceStaysOffAnOnlyGlobalInterface)
{
    announce({media(47000), media(), media(49151)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(2u)));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDCommunicationHubOutgoingTest, InternalServicesHaveDatagramsOfTheirOwnThatGoFirst)
{
    const auto listener = addInterface("eth0", "fe80::1");

    announce({media(), media(47000), serviceOfSize(1000), media(47000), media()});

    EXPECT_THAT(sessionsOf(listener->datagrams()),
                ElementsAre(ElementsAre(2u, 4u), ElementsAre(1u, 3u), ElementsAre(5u)));
}

TEST_F(SDCommunicationHubOutgoingTest, NothingOfAnAnnouncementIsSentWithTheNext)
{
    const auto listener = addInterface("eth0", "fe80::1");

    announce({media(), media(47000)});
    announce({media(), media(47000)});

    EXPECT_THAT(sessionsOf(listener->datagrams()),
                ElementsAre(ElementsAre(2u), ElementsAre(1u), ElementsAre(4u), ElementsAre(3u)));
}

TEST_F(SDCommunicationHubOutgoingTest, WithoutInterfacesNothingIsSent)
{
    unit.hub.announce(media());

    EXPECT_THAT(
        log.errors(),
        ElementsAre(
            "Error: MulticastSender failed to send package, no service discovery interfaces configured!"));
}

TEST_F(AnnouncementTest, AfterAFailedAnnouncementTheNextOneIsCompleteAndNoNumberComesTwice)
{
    SDService::Ptr unfit = media();
    unfit->setType(Type::NONE);
    announce({media(), media(47000), unfit});

    announce({media()});

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 03")));
}

TEST_F(AnnouncementTest, LargestServiceCanBeAdded)
{
    SDService::Ptr service = serviceOfSize(1212);

    EXPECT_TRUE(unit.hub.addService(service));
    EXPECT_TRUE(listener->hears(1));
    EXPECT_EQ(listener->datagrams().front().bytes.size(), 1212u);
}

}  // namespace Nubo::ServiceDiscovery::Testing
