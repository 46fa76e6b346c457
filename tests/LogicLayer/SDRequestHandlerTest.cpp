#include "RequestHandlerFixture.h"

#include <ostream>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using Packets::Entry;
using Packets::packet;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;

namespace {

using SDRequestHandlerTest = RequestHandlerFixture;
using FindPayload = SDRequestHandler::FindServicePayload;
using OfferPayload = SDRequestHandler::OfferServicePayload;

struct RequestCase
{
    const char* name;
    const char* entryType;
    const char* ttl;

    friend void PrintTo(const RequestCase& row, std::ostream* stream) { *stream << row.name; }
};

struct SDRequestHandlerEventgroupTest : RequestHandlerFixture, ::testing::WithParamInterface<RequestCase>
{};

}  // namespace

TEST_F(SDRequestHandlerTest, RequestKindsHaveTheirNumbers)
{
    using Kind = SDRequestHandler::InternalEntryType;

    EXPECT_EQ(SDRequestHandler::BitTTL0, 0x1000);
    EXPECT_EQ(Kind::FIND_SERVICE, 0);
    EXPECT_EQ(Kind::OFFER_SERVICE, 1);
    EXPECT_EQ(Kind::STOP_OFFER_SERVICE, 4097);
    EXPECT_EQ(Kind::SUBSCRIBE, 6);
    EXPECT_EQ(Kind::STOP_SUBSCRIBE, 4102);
    EXPECT_EQ(Kind::SUBSCRIBE_ACK, 7);
    EXPECT_EQ(Kind::SUBSCRIBE_NACK, 4103);
    EXPECT_EQ(Kind::INVALID, 255);
}

TEST_F(SDRequestHandlerTest, FindRaisesFindServiceWithEntryOptionsAndOrigin)
{
    handle(Packets::find("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("find #65535 TTL 120"));
    ASSERT_THAT(subscriber.finds, SizeIs(1));
    const FindPayload& payload = subscriber.finds.front();
    EXPECT_EQ(payload.entryData.entry->getServiceID(), 0xfffe);
    ASSERT_THAT(payload.entryData.options, SizeIs(1));
    EXPECT_EQ(payload.entryData.options[0]->getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(payload.origin.toString(), Packets::otherUnitOrigin);
    EXPECT_FALSE(payload.result);
    EXPECT_EQ(subscriber.sender, &handler);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, OfferRaisesOfferServiceWithEntryOptionsAndOrigin)
{
    handle(Packets::offer("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120"));
    ASSERT_THAT(subscriber.offers, SizeIs(1));
    const OfferPayload& payload = subscriber.offers.front();
    ASSERT_THAT(payload.entryData.options, SizeIs(2));
    EXPECT_EQ(payload.entryData.options[0]->getType(), OptionType::IP6_ENDPOINT);
    EXPECT_EQ(payload.entryData.options[1]->getType(), OptionType::CONFIGURATION);
    EXPECT_EQ(payload.origin.toString(), Packets::otherUnitOrigin);
    EXPECT_FALSE(payload.result);
    EXPECT_EQ(subscriber.sender, &handler);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, StopOfferReachesOfferServiceToo)
{
    handle(Packets::stopOffer("Media"));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 0"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, FindWithTTLZeroIsOfUnknownTypeAndFails)
{
    handle(packet(Entry{"00", "00 00 00", "ff ff", "00 00 00"}.bytes(), ""));

    EXPECT_THAT(subscriber.events, IsEmpty());
    EXPECT_THAT(log.complaints(), ElementsAre("Error: SDRequestHandler - found unknown Entry type 0x1000.",
                                              "Error: SDRequestHandler - failed to handle Entry #1/1."));
}

TEST_P(SDRequestHandlerEventgroupTest, EntryIsSkippedAndIsNoFailure)
{
    handle(packet(Entry{GetParam().entryType, "00 00 00", "00 01", GetParam().ttl}.bytes() + entryOf("00 02"),
                  ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #2 TTL 120"));
    EXPECT_THAT(log.debugs(),
                Contains("Debug: SDRequestHandler - found not (yet) supported EventgroupEntry, skipping."));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Kinds, SDRequestHandlerEventgroupTest,
                         ::testing::Values(RequestCase{"Subscribe", "06", "00 00 78"},
                                           RequestCase{"StopSubscribe", "06", "00 00 00"},
                                           RequestCase{"SubscribeAck", "07", "00 00 78"},
                                           RequestCase{"SubscribeNack", "07", "00 00 00"}),
                         [](const auto& row) { return row.param.name; });

/// A datagram may have 65527 bytes.
TEST_F(SDRequestHandlerTest, PacketOfFourThousandEntriesIsHandled)
{
    constexpr std::size_t count = 4000;
    std::string entries;
    for (std::size_t i = 0; i < count; ++i)
        entries += entryOf("00 01");

    handle(packet(entries, ""));

    EXPECT_EQ(subscriber.events, std::vector<std::string>(count, "offer #1 TTL 120"));
    EXPECT_THAT(log.errors(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, EntryWithTheReservedInstanceIDIsSkippedBeforeAnyEvent)
{
    handle(packet(entryOf("00 01") + entryOf("00 00") + entryOf("01 00"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #256 TTL 120"));
    EXPECT_THAT(
        log.debugs(),
        Contains("Debug: SDRequestHandler - found Entry with reserved Instance-ID 0x0, Entry #2 skipped!"));
    EXPECT_THAT(log.complaints(), IsEmpty());
}

TEST_F(SDRequestHandlerTest, EntriesOfAPacketAreHandledInTheirOrder)
{
    handle(packet(entryOf("00 03") + entryOf("00 01", "00 00 00") + entryOf("00 02"), ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #3 TTL 120", "offer #1 TTL 0", "offer #2 TTL 120"));
    EXPECT_THAT(log.debugs(), ElementsAre("Debug: run: processing 1 Message(s)...",
                                          "Debug: run: processing 3 Entrie(s)..."));
}

TEST_F(SDRequestHandlerTest, EntryOfAnUnknownTypeCostsNoOtherEntry)
{
    handle(packet(entryOf("00 01") + Entry{"42", "00 00 00", "00 02", "00 00 78"}.bytes() + entryOf("00 03"),
                  ""));

    EXPECT_THAT(subscriber.events, ElementsAre("offer #1 TTL 120", "offer #3 TTL 120"));
}

TEST_F(SDRequestHandlerTest, ResultOfASubscriberIsNotLookedAt)
{
    handle(Packets::offer("Media"));

    EXPECT_FALSE(subscriber.offers.front().result);
    EXPECT_THAT(log.complaints(), IsEmpty());
}

}  // namespace Nubo::ServiceDiscovery::Testing
