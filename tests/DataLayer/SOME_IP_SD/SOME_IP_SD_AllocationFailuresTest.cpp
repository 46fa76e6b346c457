#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Entry_Service.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Header.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Configuration.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "support/FailingAllocations.h"
#include "support/Packets.h"
#include "support/Wire.h"

#include <Poco/Exception.h>
#include <Poco/MemoryStream.h>

#include <array>
#include <optional>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

/// Packets when memory runs out. Under AddressSanitizer, leaks also fail a test.
namespace Nubo::ServiceDiscovery::Testing {

namespace {

const ConfigurationPairs offered{{"l6proto", "nubo"},
                                 {"otherserv", "A name that takes memory besides its pair"},
                                 {"txtvers", "1"},
                                 {"version", "1.0.0"}};

/// The bytes of an offer, made like every packet that is sent; empty when an option could not be made.
std::string encodeOffer()
{
    try {
        SOME_IP_SD_Entry::CommonFields fields;
        fields.type = EntryType::OFFER_SERVICE;
        fields.fstOptionRunNum = 2;
        SOME_IP_SD_Header packet(0);
        packet.addEntry(new SOME_IP_SD_Entry_Service(fields, 0), false);
        packet.addOption(
            new SOME_IP_SD_Option_IPv6(OptionType::IP6_ENDPOINT, "fd00::1", 8080, OptionL4Protocol::TCP),
            false);
        packet.addOption(new SOME_IP_SD_Option_Configuration(offered), false);

        std::array<char, 1212> datagram{};
        Poco::MemoryStreamBuf buffer(datagram.data(), static_cast<std::streamsize>(datagram.size()));
        std::ostream stream(&buffer);
        stream << packet;
        return std::string(datagram.data(), packet.getSize());
    }
    catch (const Poco::Exception& exception) {
        EXPECT_EQ(exception.message(), "Pair Configuration-Option data invalid!");
        return "";
    }
}

SOME_IP_SD_Header decode(const std::string& bytes)
{
    SOME_IP_SD_Header packet(bytes.size());
    Poco::MemoryInputStream stream(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream >> packet;
    return packet;
}

bool isGood(const SOME_IP_SD_Header& packet)
{
    return packet.getSomeIP_SD().isValid() && packet.getSomeIP_SD().areArraysValid();
}

std::string subscription()
{
    Packets::Entry entry;
    entry.type = "06";
    return entry.bytes();
}

}  // namespace

TEST(SOME_IP_SD_AllocationFailuresTest, PacketIsSentWholeOrNotAtAll)
{
    const std::string whole = encodeOffer();
    ASSERT_NE(whole, "");
    std::string bytes;

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { bytes = encodeOffer(); }); ++n)
        ASSERT_EQ(bytes, "") << "after failure of allocation " << n;

    EXPECT_GT(n, 10u) << "hardly any memory was needed";
    EXPECT_EQ(toHex(bytes), toHex(whole));
}

TEST(SOME_IP_SD_AllocationFailuresTest, PacketIsReceivedWholeOrNotAtAll)
{
    const std::string bytes = Packets::packet(
        Packets::Entry().bytes() + subscription(),
        Packets::ipv6Option() + Packets::offerConfiguration("A name that takes memory besides its pair") +
            Packets::ipv4Option() + Packets::loadBalancingOption());
    const std::string whole = decode(bytes).toString(0);
    std::optional<SOME_IP_SD_Header> received;

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { received.emplace(decode(bytes)); }); ++n)
        ASSERT_FALSE(received && isGood(*received)) << "after failure of allocation " << n;

    EXPECT_GT(n, 20u) << "hardly any memory was needed";
    EXPECT_TRUE(isGood(*received));
    EXPECT_EQ(received->toString(0), whole);
}

TEST(SOME_IP_SD_AllocationFailuresTest, ComplaintWithoutMemoryLeavesEveryElementAtItsIndex)
{
    const std::string bytes =
        Packets::packet(Packets::Entry{"77"}.bytes() + Packets::Entry().bytes(),
                        Packets::optionOfUnknownType() + Packets::optionOfUnknownType() +
                            Packets::configurationOption({" begins with a blank"}) + Packets::ipv6Option());
    std::optional<SOME_IP_SD_Header> received;

    std::size_t n = 1;
    for (; failsAtAllocation(n, [&] { received.emplace(decode(bytes)); }); ++n) {
        if (!received)
            continue;
        EXPECT_EQ(received->getNumOfEntries(), 1u) << "after failure of allocation " << n;
        ASSERT_EQ(received->getSomeIP_SD().getOptions().size(), 4u) << "after failure of allocation " << n;
        EXPECT_TRUE(received->getSomeIP_SD().getOptions()[3]->isValid())
            << "after failure of allocation " << n;
        received.reset();
    }

    EXPECT_GT(n, 20u) << "hardly any memory was needed";
}

TEST(SOME_IP_SD_AllocationFailuresTest, PayloadThatWasReadInPartIsInvalid)
{
    const std::string bytes = Packets::offer("Media");
    std::size_t n = 1;
    bool isOver = false;

    for (; !isOver; ++n) {
        SOME_IP_SD_Header packet(bytes.size());
        Poco::MemoryInputStream stream(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        bool isShort = true;
        isOver = !failsAtAllocation(n, [&] {
            stream >> packet;
            isShort = false;
        });
        EXPECT_EQ(packet.getSomeIP_SD().isValid(), !isShort) << "after failure of allocation " << n;
    }

    EXPECT_GT(n, 10u) << "hardly any memory was needed";
}

}  // namespace Nubo::ServiceDiscovery::Testing
