#include "LogicLayer/SDCommunicationHub.h"
#include "support/Descriptions.h"
#include "support/Listener.h"
#include "support/LogCatcher.h"
#include "support/Namespace.h"
#include "support/TestUnit.h"
#include "support/Wire.h"

#include <algorithm>
#include <memory>
#include <ostream>
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

// What packets have in common, with a blank at the end so that they can be put together.
const std::string sdMessage = "ff ff 81 00 ";
const std::string versions = "01 01 02 00 ";
const std::string flags = "e0 00 00 00 ";
const std::string fd00_1 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";
const std::string fd01_1 = "fd 01 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";
const std::string fe80_1 = "fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 ";

/// l6proto=nubo, otherserv=Media, txtvers=1, version=1.0.0
const std::string mediaConfiguration =
    "00 37 01 00 "
    "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
    "0f 6f 74 68 65 72 73 65 72 76 3d 4d 65 64 69 61 "
    "09 74 78 74 76 65 72 73 3d 31 "
    "0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
    "00";

/// The offer of the service that media() gives, with that session ID, TTL and address.
std::string offerOfMedia(const std::string& session, const std::string& ttl = "00 00 78",
                         const std::string& address = fd00_1)
{
    return sdMessage + "00 00 00 76 00 00 " + session + " " + versions + flags +
           "00 00 00 10 "
           "01 00 01 11 ff fe 00 00 01 " +
           ttl +
           " 00 00 00 00 "
           "00 00 00 52 "
           "00 15 06 00 " +
           address + "00 06 1f 90 " + mediaConfiguration;
}

SDService::Ptr media(unsigned short port = 8080)
{
    SDService::Ptr service = makeService("Media", "fd00::1", port);
    service->setType(Type::ANNOUNCED);
    return service;
}

/// A service like media() whose packet has that size.
SDService::Ptr serviceOfSize(std::size_t size, unsigned short port = 8080)
{
    constexpr std::size_t sizeOfMedia = 126;
    constexpr std::size_t aroundCategory = 10;  // the length byte and "category="
    NuboServiceDescription description = describe("Media", "fd00::1", port);
    for (std::size_t missing = size - sizeOfMedia; missing != 0;) {
        std::size_t part = std::min<std::size_t>(missing, 200);
        if (missing - part != 0 && missing - part < 20)
            part -= 20;  // what remains is enough for a further category
        description.addCategory(std::string(part - aroundCategory, 'c'));
        missing -= part;
    }
    SDService::Ptr service = new SDService(description);
    service->setType(Type::ANNOUNCED);
    return service;
}

/// The session IDs of each datagram's packets.
std::vector<std::vector<unsigned>> sessionsOf(const std::vector<Listener::Datagram>& datagrams)
{
    std::vector<std::vector<unsigned>> result;
    for (const Listener::Datagram& datagram : datagrams) {
        const auto number = [&](std::size_t at) {
            return static_cast<unsigned>(static_cast<unsigned char>(datagram.bytes.at(at))) << 8 |
                   static_cast<unsigned char>(datagram.bytes.at(at + 1));
        };
        result.emplace_back();
        for (std::size_t at = 0; at < datagram.bytes.size(); at += number(at + 6) + 8)
            result.back().push_back(number(at + 10));
    }
    return result;
}

/// A hub that runs on fd00::1, as yet without an interface.
struct SDCommunicationHubOutgoingTest : ::testing::Test
{
    SDCommunicationHubOutgoingTest()
    {
        EXPECT_TRUE(unit.hub.start(IPAddress("fd00::1")));
        log.clear();
    }
    ~SDCommunicationHubOutgoingTest() override { unit.hub.stop(); }

    /// A further interface; what is sent on it comes to the listener.
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

struct UnfitType
{
    const char* name;
    Type::Type_t type;

    friend std::ostream& operator<<(std::ostream& stream, const UnfitType& row) { return stream << row.type; }
};

struct UnfitTypeTest : AnnouncementTest, ::testing::WithParamInterface<UnfitType>
{};

struct PortRow
{
    const char* name;
    unsigned short port;
    bool isInternal;

    friend std::ostream& operator<<(std::ostream& stream, const PortRow& row) { return stream << row.port; }
};

struct PortTest : SDCommunicationHubOutgoingTest, ::testing::WithParamInterface<PortRow>
{};

}  // namespace

TEST_F(AnnouncementTest, AnnouncedServiceIsOffered)
{
    unit.hub.announce(media());

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01")));
    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDCommunicationHub::announce(single)",
                                         "Trace: SDCommunicationHub::announce"));
}

TEST_F(AnnouncementTest, DiscoveredServiceIsOfferedToo)
{
    SDService::Ptr service = media();
    service->setType(Type::DISCOVERED);

    unit.hub.announce(service);

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01")));
}

TEST_F(AnnouncementTest, StopOfferIsAnOfferWithTTLZero)
{
    SDService::Ptr service = media();
    service->setTTL(0);

    unit.hub.announce(service);

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 00")));
}

TEST_F(AnnouncementTest, ChangedRecordIsSentAsItIsNow)
{
    const SDService::Ptr service = media();
    announce({service, service});
    SDService::Ptr(service)->setTTL(0);
    announce({service});
    SDService::Ptr(service)->setInstanceId(7);
    announce({service});

    std::vector<std::string> entries;
    for (const Listener::Datagram& datagram : listener->datagrams())
        entries.push_back(toHex(datagram.bytes.substr(24, 16)));
    EXPECT_THAT(entries, ElementsAre("01 00 01 11 ff fe 00 00 01 00 00 78 00 00 00 00",
                                     "01 00 01 11 ff fe 00 00 01 00 00 00 00 00 00 00",
                                     "01 00 01 11 ff fe 00 07 01 00 00 00 00 00 00 00"));
}

TEST_F(AnnouncementTest, EveryFieldOfTheRecordHasItsPlaceInTheOffer)
{
    NuboServiceDescription description = describe("N", "fd00:1:2:3:4:5:6:7", 0x1234);
    description.setL4Proto(OptionL4Protocol::UDP);
    description.addVersion("~2.3.0");
    description.addCategory("c");
    SDService::Ptr service = new SDService(description);
    service->setType(Type::ANNOUNCED);
    service->setServiceId(0x0102);
    service->setInstanceId(0x0304);
    service->setMajorVersion(0x05);
    service->setMinorVersion(0x06070809);
    service->setTTL(0x0a0b0c);

    unit.hub.announce(service);

    EXPECT_THAT(listener->bytes(), ElementsAre(sdMessage + "00 00 00 8c 00 00 00 01 " + versions + flags +
                                               "00 00 00 10 "
                                               "01 00 01 11 01 02 03 04 05 0a 0b 0c 06 07 08 09 "
                                               "00 00 00 68 "
                                               "00 15 06 00 "
                                               "fd 00 00 01 00 02 00 03 00 04 00 05 00 06 00 07 00 11 12 34 "
                                               "00 4d 01 00 "
                                               "0a 63 61 74 65 67 6f 72 79 3d 63 "
                                               "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
                                               "0b 6f 74 68 65 72 73 65 72 76 3d 4e "
                                               "09 74 78 74 76 65 72 73 3d 31 "
                                               "0d 76 65 72 73 69 6f 6e 3d 31 2e 30 2e 30 "
                                               "0e 76 65 72 73 69 6f 6e 3d 7e 32 2e 33 2e 30 "
                                               "00"));
}

TEST_F(AnnouncementTest, WantedServiceIsSearchedFor)
{
    SDService::Ptr service = new SDService("Navi");
    service->setType(Type::WANTED);
    service->setInstanceId(0xffff);
    service->setMajorVersion(0xff);
    service->setMinorVersion(0xffffffff);

    unit.hub.announce(service);

    EXPECT_THAT(listener->bytes(), ElementsAre(sdMessage + "00 00 00 4f 00 00 00 01 " + versions + flags +
                                               "00 00 00 10 "
                                               "00 00 00 01 ff fe ff ff ff 00 00 78 ff ff ff ff "
                                               "00 00 00 2b "
                                               "00 28 01 00 "
                                               "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
                                               "0e 6f 74 68 65 72 73 65 72 76 3d 4e 61 76 69 "
                                               "09 74 78 74 76 65 72 73 3d 31 "
                                               "00"));
}

TEST_F(AnnouncementTest, DatagramGoesToTheGroup)
{
    unit.hub.announce(media());

    ASSERT_THAT(listener->datagrams(), SizeIs(1));
    EXPECT_EQ(listener->datagrams().front().source, "fd00::1");
    EXPECT_EQ(listener->datagrams().front().destination, "ff14::4:0");
    EXPECT_EQ(listener->datagrams().front().hopLimit, 255u);
}

TEST_F(AnnouncementTest, PacketsAreNumberedFromOneWhateverTheirKind)
{
    SDService::Ptr wanted = new SDService("Navi");
    wanted->setType(Type::WANTED);

    unit.hub.announce(media());
    unit.hub.announce(wanted);
    announce({media(), wanted, media()});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u), ElementsAre(2u), ElementsAre(3u, 4u, 5u)));
}

TEST_F(SDCommunicationHubOutgoingTest, NumberingStartsAgainAtOneBehindFFFE)
{
    announce(std::vector<SDService::Ptr>(0xfffd, media()));
    const auto listener = addInterface("eth0", "fd00::1");

    announce({media(), media(), media()});

    EXPECT_THAT(sessionsOf(listener->datagrams()), ElementsAre(ElementsAre(0xfffeu, 1u, 2u)));
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
    SDService::Ptr service = makeService("Media", "fd00::7");
    service->setType(Type::ANNOUNCED);
    const std::string fd00_7 = "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 07 ";

    unit.hub.announce(service);

    EXPECT_THAT(first->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd00_7)));
    EXPECT_THAT(second->bytes(), ElementsAre(offerOfMedia("00 01", "00 00 78", fd00_7)));
}

TEST_F(SDCommunicationHubOutgoingTest, AddressOfTheLatestStartIsTheUnits)
{
    SDService::Ptr service = makeService("Media", "fd00::7");
    service->setType(Type::ANNOUNCED);
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

TEST_F(AnnouncementTest, ThreePacketsOfWhichTwoFitTakeTwoDatagrams)
{
    announce({serviceOfSize(500), serviceOfSize(500), serviceOfSize(500)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 2u), ElementsAre(3u)));
}

TEST_F(AnnouncementTest, DatagramIsFilledUpTo1212Bytes)
{
    announce({serviceOfSize(606), serviceOfSize(606)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 2u)));
    EXPECT_EQ(listener->datagrams().front().bytes.size(), 1212u);
}

TEST_F(AnnouncementTest, OneByteTooManyBeginsTheNextDatagram)
{
    announce({serviceOfSize(606), serviceOfSize(607)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u), ElementsAre(2u)));
}

TEST_F(AnnouncementTest, DatagramThatWasLeftIsNotFilledUpLater)
{
    announce({serviceOfSize(1000), serviceOfSize(500), serviceOfSize(200)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u), ElementsAre(2u, 3u)));
}

TEST_F(AnnouncementTest, PacketOf1212BytesIsSent)
{
    unit.hub.announce(serviceOfSize(1212));

    ASSERT_THAT(listener->datagrams(), SizeIs(1));
    EXPECT_EQ(listener->datagrams().front().bytes.size(), 1212u);
}

TEST_F(AnnouncementTest, HundredPacketsTakeAsManyDatagramsAsTheyNeed)
{
    announce(std::vector<SDService::Ptr>(100, media()));

    constexpr std::size_t inOneDatagram = 1212 / 126;
    EXPECT_THAT(sessions(), SizeIs((100 + inOneDatagram - 1) / inOneDatagram));
    EXPECT_THAT(sessions().front(), SizeIs(inOneDatagram));
    EXPECT_THAT(sessions().back(), ElementsAre(100u));
}

TEST_P(PortTest, DecidesOnWhichInterfacesTheServiceIsAnnounced)
{
    const auto global = addInterface("eth0", "fd00::1");
    const auto linkLocal = addInterface("eth1", "fe80::1");

    unit.hub.announce(media(GetParam().port));

    EXPECT_THAT(global->datagrams(), SizeIs(GetParam().isInternal ? 0 : 1));
    EXPECT_THAT(linkLocal->datagrams(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(Ports, PortTest,
                         ::testing::Values(PortRow{"Lowest", 0, false}, PortRow{"Below", 46999, false},
                                           PortRow{"LowerBoundary", 47000, true},
                                           PortRow{"Within", 48000, true},
                                           PortRow{"UpperBoundary", 49151, true},
                                           PortRow{"Above", 49152, false}, PortRow{"Highest", 65535, false}),
                         [](const auto& row) { return row.param.name; });

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

TEST_F(AnnouncementTest, EmptyListIsWarnedOfAndSendsNothing)
{
    announce({});

    EXPECT_THAT(log.lines(), ElementsAre("Trace: SDCommunicationHub::announce",
                                         "Warning: SDCommunicationHub - received empty list to announce!"));
    EXPECT_THAT(listener->datagrams(), IsEmpty());
}

TEST_F(SDCommunicationHubOutgoingTest, WithoutInterfacesNothingIsSent)
{
    unit.hub.announce(media());

    EXPECT_THAT(
        log.errors(),
        ElementsAre(
            "Error: MulticastSender failed to send package, no service discovery interfaces configured!"));
}

TEST_P(UnfitTypeTest, EndsTheWholeAnnouncement)
{
    SDService::Ptr unfit = media();
    unfit->setType(GetParam().type);

    announce({media(), unfit, media()});

    EXPECT_THAT(listener->datagrams(), IsEmpty());
    EXPECT_THAT(log.errors(), ElementsAre("Error: Failed to create SD packet - Invalid argument",
                                          "Error: SDCommunicationHub - Exception caught while announcing "
                                          "services! (Runtime exception: Failed to create SD packet"));
}

INSTANTIATE_TEST_SUITE_P(Types, UnfitTypeTest,
                         ::testing::Values(UnfitType{"None", Type::NONE}, UnfitType{"Any", Type::ANY}),
                         [](const auto& row) { return row.param.name; });

TEST_F(AnnouncementTest, AfterAFailedAnnouncementTheNextOneIsCompleteAndNoNumberComesTwice)
{
    SDService::Ptr unfit = media();
    unfit->setType(Type::NONE);
    announce({media(), media(47000), unfit});

    announce({media()});

    EXPECT_THAT(listener->bytes(), ElementsAre(offerOfMedia("00 03")));
}

TEST_F(AnnouncementTest, RecordWhosePacketIsLargerThanTheMTUIsNotSent)
{
    announce({serviceOfSize(1213)});

    EXPECT_THAT(listener->datagrams(), IsEmpty());
    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - Exception caught while announcing "
                                          "services! (Bad data format: SD packet exceeds the MTU"));
}

TEST_F(AnnouncementTest, LargestServiceCanBeAdded)
{
    SDService::Ptr service = serviceOfSize(1212);

    EXPECT_TRUE(unit.hub.addService(service));
    EXPECT_TRUE(listener->hears(1));
    EXPECT_EQ(listener->datagrams().front().bytes.size(), 1212u);
}

TEST_F(AnnouncementTest, ServiceWhosePacketIsLargerThanTheMTUCannotBeAdded)
{
    SDService::Ptr service = serviceOfSize(1213);

    EXPECT_FALSE(unit.hub.addService(service));
    EXPECT_THAT(log.errors(), ElementsAre("Error: SDCommunicationHub - Service \"Media\" cannot be put on "
                                          "the wire: its packet of 1213 Bytes exceeds the MTU of 1212 "
                                          "Bytes!"));
}

TEST_F(AnnouncementTest, ServiceWhosePacketCannotBeBuiltCannotBeAdded)
{
    SDService::Ptr service = makeService("M=dia");

    EXPECT_FALSE(unit.hub.addService(service));
    EXPECT_THAT(log.errors(),
                ElementsAre("Error: initFromPairs: invalid Configuration-value detected: 'M=dia'!",
                            "Error: Failed to create SD packet - Exception",
                            "Error: SDCommunicationHub - Service \"M=dia\" cannot be put on the wire: "
                            "Runtime exception: Failed to create SD packet"));
}

TEST_F(AnnouncementTest, ServiceWithoutANameCannotBeAddedNorSearchedFor)
{
    SDService::Ptr local = makeService("");
    SDService::Ptr wanted = new SDService("");

    EXPECT_FALSE(unit.hub.addService(local));
    EXPECT_FALSE(unit.hub.findService(wanted));
    const auto line = "Error: SDCommunicationHub - a Service without a name cannot be put on the wire!";
    EXPECT_THAT(log.errors(), ElementsAre(line, line));
}

TEST_F(AnnouncementTest, NameTooLongForThePacketCannotBeSearchedFor)
{
    SDService::Ptr wanted = new SDService(std::string(256, 'n'));

    EXPECT_FALSE(unit.hub.findService(wanted));
    EXPECT_THAT(log.errors(),
                ::testing::Contains("Error: SDCommunicationHub - Service \"" + std::string(256, 'n') +
                                    "\" cannot be put on the wire: Runtime exception: Failed "
                                    "to create SD packet"));
}

TEST_F(AnnouncementTest, TrialOfARefusedServiceTakesNoNumber)
{
    SDService::Ptr tooLarge = serviceOfSize(1213);
    SDService::Ptr good = media();
    unit.hub.addService(tooLarge);

    unit.hub.addService(good);

    EXPECT_TRUE(listener->hears(1));
    EXPECT_THAT(sessions().front(), ElementsAre(1u));
}

}  // namespace Nubo::ServiceDiscovery::Testing
