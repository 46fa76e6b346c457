#include "LogicLayer/OutgoingDatagrams.h"
#include "support/Descriptions.h"
#include "support/LogCatcher.h"
#include "support/MediaOffer.h"
#include "support/Wire.h"

#include <Poco/Exception.h>

#include <cstddef>
#include <ostream>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Type = SDService::Type;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

constexpr std::size_t mtu = 1212;

std::vector<std::string> bytesOf(const OutgoingDatagrams::Datagrams& datagrams)
{
    std::vector<std::string> result;
    for (const auto& [bytes, size] : datagrams)
        result.emplace_back(bytes, size);
    return result;
}

SDService::Ptr wanted(const std::string& name)
{
    SDService::Ptr service = new SDService(name);
    service->setType(Type::WANTED);
    return service;
}

struct OutgoingDatagramsTest : ::testing::Test
{
    void add(const std::vector<SDService::Ptr>& services)
    {
        for (const SDService::Ptr& service : services)
            outgoing.add(*service);
    }

    bool isSendable(SDService::Ptr service, Type::Type_t type = Type::ANNOUNCED)
    {
        service->setType(type);
        return outgoing.isSendable(*service);
    }

    /// The datagrams for every interface, as hexadecimal texts.
    std::vector<std::string> externals() const
    {
        std::vector<std::string> result;
        for (const std::string& bytes : bytesOf(outgoing.externals()))
            result.push_back(toHex(bytes));
        return result;
    }

    std::vector<std::vector<unsigned>> sessions() const { return sessionsOf(bytesOf(outgoing.externals())); }
    std::vector<std::vector<unsigned>> internalSessions() const
    {
        return sessionsOf(bytesOf(outgoing.internals()));
    }

    OutgoingDatagrams outgoing{mtu};
    LogCatcher log;
};

struct UnfitType
{
    const char* name;
    Type::Type_t type;

    friend std::ostream& operator<<(std::ostream& stream, const UnfitType& row) { return stream << row.type; }
};

struct UnfitTypeTest : OutgoingDatagramsTest, ::testing::WithParamInterface<UnfitType>
{};

struct PortRow
{
    const char* name;
    unsigned short port;
    bool isInternal;

    friend std::ostream& operator<<(std::ostream& stream, const PortRow& row) { return stream << row.port; }
};

struct PortTest : OutgoingDatagramsTest, ::testing::WithParamInterface<PortRow>
{};

}  // namespace

TEST_F(OutgoingDatagramsTest, AnnouncedServiceIsOffered)
{
    add({media()});

    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01")));
    EXPECT_THAT(outgoing.internals(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(OutgoingDatagramsTest, DiscoveredServiceIsOfferedToo)
{
    SDService::Ptr service = media();
    service->setType(Type::DISCOVERED);

    add({service});

    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01")));
}

TEST_F(OutgoingDatagramsTest, StopOfferIsAnOfferWithTTLZero)
{
    SDService::Ptr service = media();
    service->setTTL(0);

    add({service});

    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01", "00 00 00")));
}

TEST_F(OutgoingDatagramsTest, ChangedRecordIsSentAsItIsNow)
{
    SDService::Ptr service = media();
    std::vector<std::string> entries;
    const auto send = [&](std::size_t count) {
        add(std::vector<SDService::Ptr>(count, service));
        entries.push_back(toHex(bytesOf(outgoing.externals()).front().substr(24, 16)));
        outgoing.resetBuffers();
    };

    send(2);
    service->setTTL(0);
    send(1);
    service->setInstanceId(7);
    send(1);

    EXPECT_THAT(entries, ElementsAre("01 00 01 11 ff fe 00 00 01 00 00 78 00 00 00 00",
                                     "01 00 01 11 ff fe 00 00 01 00 00 00 00 00 00 00",
                                     "01 00 01 11 ff fe 00 07 01 00 00 00 00 00 00 00"));
}

TEST_F(OutgoingDatagramsTest, EveryFieldOfTheRecordHasItsPlaceInTheOffer)
{
    NuboServiceDescription description = describe("N", "fd00:1:2:3:4:5:6:7", 0x1234);
    description.setL4Proto(OptionL4Protocol::UDP);
    description.addVersion("~2.3.0");
    description.addCategory("c");
    SDService::Ptr service = announcedService(description);
    service->setServiceId(0x0102);
    service->setInstanceId(0x0304);
    service->setMajorVersion(0x05);
    service->setMinorVersion(0x06070809);
    service->setTTL(0x0a0b0c);

    add({service});

    EXPECT_THAT(externals(), ElementsAre(sdMessage + "00 00 00 8c 00 00 00 01 " + versions + flags +
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

TEST_F(OutgoingDatagramsTest, WantedServiceIsSearchedFor)
{
    SDService::Ptr service = wanted("Navi");
    service->setInstanceId(0xffff);
    service->setMajorVersion(0xff);
    service->setMinorVersion(0xffffffff);

    add({service});

    EXPECT_THAT(externals(), ElementsAre(sdMessage + "00 00 00 4f 00 00 00 01 " + versions + flags +
                                         "00 00 00 10 "
                                         "00 00 00 01 ff fe ff ff ff 00 00 78 ff ff ff ff "
                                         "00 00 00 2b "
                                         "00 28 01 00 "
                                         "0c 6c 36 70 72 6f 74 6f 3d 6e 75 62 6f "
                                         "0e 6f 74 68 65 72 73 65 72 76 3d 4e 61 76 69 "
                                         "09 74 78 74 76 65 72 73 3d 31 "
                                         "00"));
}

TEST_F(OutgoingDatagramsTest, PacketsAreNumberedFromOneWhateverTheirKind)
{
    add({media(), wanted("Navi"), media()});
    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 2u, 3u)));
    outgoing.resetBuffers();

    add({wanted("Navi")});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(4u)));
}

TEST_F(OutgoingDatagramsTest, NumberingStartsAgainAtOneBehindFFFE)
{
    for (unsigned expected = 1; expected < 0xfffe; ++expected)
        ASSERT_EQ(outgoing.nextSessionID(), expected);

    add({media(), media(), media()});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(0xfffeu, 1u, 2u)));
    EXPECT_EQ(outgoing.nextSessionID(), 3);
}

TEST_F(OutgoingDatagramsTest, PacketsShareADatagramInTheirOrder)
{
    add({media(), media(), media()});

    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01") + " " + offerOfMedia("00 02") + " " +
                                         offerOfMedia("00 03")));
}

TEST_F(OutgoingDatagramsTest, ThreePacketsOfWhichTwoFitTakeTwoDatagrams)
{
    add({serviceOfSize(500), serviceOfSize(500), serviceOfSize(500)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 2u), ElementsAre(3u)));
}

TEST_F(OutgoingDatagramsTest, DatagramIsFilledUpTo1212Bytes)
{
    add({serviceOfSize(606), serviceOfSize(606)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 2u)));
    EXPECT_EQ(outgoing.externals().front().second, 1212u);
}

TEST_F(OutgoingDatagramsTest, OneByteTooManyBeginsTheNextDatagram)
{
    add({serviceOfSize(606), serviceOfSize(607)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u), ElementsAre(2u)));
}

TEST_F(OutgoingDatagramsTest, DatagramThatWasLeftIsNotFilledUpLater)
{
    add({serviceOfSize(1000), serviceOfSize(500), serviceOfSize(200)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u), ElementsAre(2u, 3u)));
}

TEST_F(OutgoingDatagramsTest, PacketOf1212BytesIsSent)
{
    add({serviceOfSize(1212)});

    ASSERT_THAT(outgoing.externals(), SizeIs(1));
    EXPECT_EQ(outgoing.externals().front().second, 1212u);
}

TEST_F(OutgoingDatagramsTest, HundredPacketsTakeAsManyDatagramsAsTheyNeed)
{
    add(std::vector<SDService::Ptr>(100, media()));

    constexpr std::size_t inOneDatagram = mtu / 126;
    EXPECT_THAT(sessions(), SizeIs((100 + inOneDatagram - 1) / inOneDatagram));
    EXPECT_THAT(sessions().front(), SizeIs(inOneDatagram));
    EXPECT_THAT(sessions().back(), ElementsAre(100u));
}

TEST_P(PortTest, DecidesWhetherTheServiceIsInternal)
{
    add({media(GetParam().port)});

    EXPECT_THAT(sessions(), SizeIs(GetParam().isInternal ? 0 : 1));
    EXPECT_THAT(internalSessions(), SizeIs(GetParam().isInternal ? 1 : 0));
}

INSTANTIATE_TEST_SUITE_P(Ports, PortTest,
                         ::testing::Values(PortRow{"Lowest", 0, false}, PortRow{"Below", 46999, false},
                                           PortRow{"LowerBoundary", 47000, true},
                                           PortRow{"Within", 48000, true},
                                           PortRow{"UpperBoundary", 49151, true},
                                           PortRow{"Above", 49152, false}, PortRow{"Highest", 65535, false}),
                         [](const auto& row) { return row.param.name; });

TEST_F(OutgoingDatagramsTest, InternalServicesHaveDatagramsOfTheirOwn)
{
    add({media(), media(47000), serviceOfSize(1000), media(47000), media()});

    EXPECT_THAT(internalSessions(), ElementsAre(ElementsAre(2u, 4u)));
    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u, 3u), ElementsAre(5u)));
}

TEST_F(OutgoingDatagramsTest, NothingIsLeftAfterAReset)
{
    add({media(), media(47000)});
    outgoing.resetBuffers();
    EXPECT_THAT(outgoing.externals(), IsEmpty());
    EXPECT_THAT(outgoing.internals(), IsEmpty());

    add({media(), media(47000)});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(3u)));
    EXPECT_THAT(internalSessions(), ElementsAre(ElementsAre(4u)));
}

TEST_P(UnfitTypeTest, IsRefusedAndAddsNothing)
{
    SDService::Ptr unfit = media();
    unfit->setType(GetParam().type);
    add({media()});

    try {
        outgoing.add(*unfit);
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.displayText(), "Runtime exception: Failed to create SD packet");
    }

    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01")));
    EXPECT_THAT(outgoing.internals(), IsEmpty());
    EXPECT_THAT(log.lines(), ElementsAre("Error: Failed to create SD packet - Invalid argument"));
}

INSTANTIATE_TEST_SUITE_P(Types, UnfitTypeTest,
                         ::testing::Values(UnfitType{"None", Type::NONE}, UnfitType{"Any", Type::ANY}),
                         [](const auto& row) { return row.param.name; });

TEST_F(OutgoingDatagramsTest, RecordWhosePacketIsLargerThanTheMTUIsNotAdded)
{
    try {
        outgoing.add(*serviceOfSize(1213));
        FAIL() << "nothing was thrown";
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.displayText(), "Bad data format: SD packet exceeds the MTU");
    }

    EXPECT_THAT(outgoing.externals(), IsEmpty());
    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(OutgoingDatagramsTest, ServiceWhosePacketFillsTheMTUIsSendable)
{
    EXPECT_TRUE(isSendable(serviceOfSize(1212)));

    EXPECT_THAT(log.lines(), IsEmpty());
}

TEST_F(OutgoingDatagramsTest, ServiceWhosePacketIsLargerThanTheMTUIsNotSendable)
{
    EXPECT_FALSE(isSendable(serviceOfSize(1213)));

    EXPECT_THAT(
        log.lines(),
        ElementsAre("Error: SDCommunicationHub - Service \"Media\" cannot be put on the wire: its packet "
                    "of 1213 Bytes exceeds the MTU of 1212 Bytes!"));
}

TEST_F(OutgoingDatagramsTest, ServiceWhosePacketCannotBeBuiltIsNotSendable)
{
    EXPECT_FALSE(isSendable(makeService("M=dia")));

    EXPECT_THAT(log.lines(),
                ElementsAre("Error: initFromPairs: invalid Configuration-value detected: 'M=dia'!",
                            "Error: Failed to create SD packet - Exception",
                            "Error: SDCommunicationHub - Service \"M=dia\" cannot be put on the wire: "
                            "Runtime exception: Failed to create SD packet"));
}

TEST_F(OutgoingDatagramsTest, ServiceWithoutANameIsNotSendableInAnyRole)
{
    EXPECT_FALSE(isSendable(makeService(""), Type::ANNOUNCED));
    EXPECT_FALSE(isSendable(new SDService(""), Type::WANTED));

    const auto line = "Error: SDCommunicationHub - a Service without a name cannot be put on the wire!";
    EXPECT_THAT(log.lines(), ElementsAre(line, line));
}

TEST_F(OutgoingDatagramsTest, SearchWithANameTooLongForThePacketIsNotSendable)
{
    const std::string name(256, 'n');

    EXPECT_FALSE(isSendable(new SDService(name), Type::WANTED));

    EXPECT_THAT(log.errors(), Contains("Error: SDCommunicationHub - Service \"" + name +
                                       "\" cannot be put on the wire: Runtime exception: Failed to create SD "
                                       "packet"));
}

TEST_F(OutgoingDatagramsTest, PacketOfTheTrialIsTheOneThatIsSent)
{
    const SDService::Ptr service = media();
    EXPECT_TRUE(isSendable(service));
    ASSERT_NE(service->getPacket(), "");
    const char* const bytes = service->getPacket().data();

    add({service});

    EXPECT_EQ(service->getPacket().data(), bytes) << "it was not built again";
    EXPECT_THAT(externals(), ElementsAre(offerOfMedia("00 01")));
}

TEST_F(OutgoingDatagramsTest, TrialTakesNoNumber)
{
    isSendable(serviceOfSize(1213));
    isSendable(media());
    isSendable(new SDService("Navi"), Type::WANTED);

    add({media()});

    EXPECT_THAT(sessions(), ElementsAre(ElementsAre(1u)));
}

}  // namespace Nubo::ServiceDiscovery::Testing
