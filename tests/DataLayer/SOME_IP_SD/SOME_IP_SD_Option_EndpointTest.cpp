#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv4.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_IPv6.h"
#include "DataLayer/SOME_IP_SD/SOME_IP_SD_Option_Pimpl.h"
#include "support/LogCatcher.h"
#include "support/Wire.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

/// Differences between the families on the wire and in the log.
struct IPv4
{
    using Option = SOME_IP_SD_Option_IPv4;

    static constexpr auto name = "IPv4";
    static constexpr OptionType::Type_t types[] = {OptionType::IP4_ENDPOINT, OptionType::IP4_MULTICAST,
                                                   OptionType::IP4_SD_ENDPOINT};
    static constexpr const char* typeBytes[] = {"04", "14", "24"};
    static constexpr auto wrongType = OptionType::IP6_ENDPOINT;
    static constexpr std::uint16_t length = 9;
    static constexpr auto lengthBytes = "00 09 ";
    static constexpr auto address = "10.1.2.253";
    static constexpr auto addressBytes = "0a 01 02 fd";
    static constexpr auto wildcard = "0.0.0.0";
    static constexpr auto addressOfTheOther = "fd00::1";
    static constexpr auto shownAddress = "IP4(10.1.2.253";

    static constexpr auto wrongTypeLine =
        "Error: IPv4 SOME_IP_SD_Option need to be of type {SOME_IP_SD_Types::OptionType::IP4_ENDPOINT=0x04, "
        "SOME_IP_SD_Types::OptionType::IP4_MULTICAST=0x14, "
        "SOME_IP_SD_Types::OptionType::IP4_SD_ENDPOINT=0x24}, but 0x06 given!";
    static constexpr auto noProtocolLine =
        "Error: IPv4 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x00 given!";
    static constexpr auto wrongProtocolLine =
        "Error: IPv4 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x0a given!";
    static constexpr auto wrongAddressLine = "Error: SOME_IP_SD_Option_IPv4: given IP is not a IPv4 address!";
    static constexpr auto invalidArrayLine = "Error: Array IP4-Option data invalid!";
    static constexpr auto invalidStringLine = "Error: String IP4-Option data invalid!";
    static constexpr auto cutByOneLine =
        "Error: SOME_IP_SD_IPv4_Option size=8, but 7 read by deserialisation!";
};

struct IPv6
{
    using Option = SOME_IP_SD_Option_IPv6;

    static constexpr auto name = "IPv6";
    static constexpr OptionType::Type_t types[] = {OptionType::IP6_ENDPOINT, OptionType::IP6_MULTICAST,
                                                   OptionType::IP6_SD_ENDPOINT};
    static constexpr const char* typeBytes[] = {"06", "16", "26"};
    static constexpr auto wrongType = OptionType::IP4_ENDPOINT;
    static constexpr std::uint16_t length = 21;
    static constexpr auto lengthBytes = "00 15 ";
    static constexpr auto address = "fd00::ab:1";
    static constexpr auto addressBytes = "fd 00 00 00 00 00 00 00 00 00 00 00 00 ab 00 01";
    static constexpr auto wildcard = "::";
    static constexpr auto addressOfTheOther = "10.1.2.3";
    static constexpr auto shownAddress = "IP6([fd00::ab:1]";

    static constexpr auto wrongTypeLine =
        "Error: IPv6 SOME_IP_SD_Option need to be of type {SOME_IP_SD_Types::OptionType::IP6_ENDPOINT=0x06, "
        "SOME_IP_SD_Types::OptionType::IP6_MULTICAST=0x16, "
        "SOME_IP_SD_Types::OptionType::IP6_SD_ENDPOINT=0x26}, but 0x04 given!";
    static constexpr auto noProtocolLine =
        "Error: IPv6 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x00 given!";
    static constexpr auto wrongProtocolLine =
        "Error: IPv6 SOME_IP_SD_Option needs L4-Protocol UDP (0x11) or TCP (0x06), but 0x0a given!";
    static constexpr auto wrongAddressLine = "Error: SOME_IP_SD_Option_IPv6: given IP is not a IPv6 address!";
    static constexpr auto invalidArrayLine = "Error: Array IP6-Option data invalid!";
    static constexpr auto invalidStringLine = "Error: String IP6-Option data invalid!";
    static constexpr auto cutByOneLine =
        "Error: SOME_IP_SD_IPv6_Option size=20, but 19 read by deserialisation!";
};

struct FamilyNames
{
    template <class Family>
    static std::string GetName(int)
    {
        return Family::name;
    }
};

template <class Family>
struct SOME_IP_SD_Option_EndpointTest : ::testing::Test
{
    using Option = typename Family::Option;

    /// Reads the bytes behind the type byte into an option of a received length.
    Option& read(const std::string& hex, std::uint16_t length = Family::length)
    {
        received = SOME_IP_SD_Option::makeReceived(Family::types[0], length);
        stream = streamOf(hex);
        stream >> *received;
        return dynamic_cast<Option&>(*received);
    }

    const std::string addressBytes = Family::addressBytes;
    const std::string rawAddress = fromHex(addressBytes);
    const std::uint8_t* const rawPointer = reinterpret_cast<const std::uint8_t*>(rawAddress.data());
    LogCatcher log;
    SOME_IP_SD_Option::Ptr received;
    std::istringstream stream;
};

using Families = ::testing::Types<IPv4, IPv6>;

}  // namespace

TYPED_TEST_SUITE(SOME_IP_SD_Option_EndpointTest, Families, FamilyNames);

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionOfATypeAloneIsInvalidUntilRead)
{
    for (const OptionType::Type_t type : TypeParam::types) {
        const typename TypeParam::Option option(type);

        EXPECT_FALSE(option.isValid());
        EXPECT_EQ(option.getType(), type);
        EXPECT_EQ(option.getLength(), TypeParam::length);
        EXPECT_EQ(option.getIP().toString(), TypeParam::wildcard);
        EXPECT_EQ(option.getPort(), 0);
        EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::NONE);
    }
    EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionOfAnAddressTextKeepsItsValues)
{
    for (const OptionType::Type_t type : TypeParam::types) {
        const typename TypeParam::Option option(type, TypeParam::address, 30490, OptionL4Protocol::TCP);

        EXPECT_TRUE(option.isValid());
        EXPECT_EQ(option.getType(), type);
        EXPECT_EQ(option.getLength(), TypeParam::length);
        EXPECT_EQ(option.getSize(), TypeParam::length + 3u);
        EXPECT_EQ(option.getIP().toString(), TypeParam::address);
        EXPECT_EQ(toHex(option.getIP_asBytes(), this->rawAddress.size()), TypeParam::addressBytes);
        EXPECT_EQ(option.getPort(), 30490);
        EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::TCP);
    }
    EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionOfAddressBytesKeepsItsValues)
{
    for (const OptionType::Type_t type : TypeParam::types) {
        const typename TypeParam::Option option(type, this->rawPointer, 65535, OptionL4Protocol::UDP);

        EXPECT_TRUE(option.isValid());
        EXPECT_EQ(option.getType(), type);
        EXPECT_EQ(option.getLength(), TypeParam::length);
        EXPECT_EQ(option.getIP().toString(), TypeParam::address);
        EXPECT_EQ(toHex(option.getIP_asBytes(), this->rawAddress.size()), TypeParam::addressBytes);
        EXPECT_EQ(option.getPort(), 65535);
        EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::UDP);
    }
    EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, EveryFieldIsWrittenInItsPlace)
{
    for (std::size_t i = 0; i < std::size(TypeParam::types); ++i) {
        const typename TypeParam::Option option(TypeParam::types[i], TypeParam::address, 30490,
                                                OptionL4Protocol::UDP);

        EXPECT_EQ(written(option), std::string(TypeParam::lengthBytes) + TypeParam::typeBytes[i] + " 00 " +
                                       TypeParam::addressBytes + " 00 11 77 1a");
    }
    EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, EveryFieldIsReadFromItsPlace)
{
    const auto& option = this->read("55 " + this->addressBytes + " 00 06 77 1a");

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(option.getIP().toString(), TypeParam::address);
    EXPECT_EQ(toHex(option.getIP_asBytes(), this->rawAddress.size()), TypeParam::addressBytes);
    EXPECT_EQ(option.getPort(), 30490);
    EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::TCP);
    EXPECT_TRUE(this->stream.good()) << "the stream ends with the option";
    EXPECT_THAT(this->log.lines(), IsEmpty());
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionThatHoldsNothingIsWrittenWithZeros)
{
    const typename TypeParam::Option option(TypeParam::types[0]);
    std::string zeros;
    for (std::size_t i = 0; i < this->rawAddress.size() + 5; ++i)
        zeros += " 00";

    EXPECT_EQ(written(option), std::string(TypeParam::lengthBytes) + TypeParam::typeBytes[0] + zeros);
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, FirstReservedByteIsKeptAndTheSecondIsClearedWhenRead)
{
    const auto& option = this->read("55 " + this->addressBytes + " 66 11 00 50");

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(written(option), std::string(TypeParam::lengthBytes) + TypeParam::typeBytes[0] + " 55 " +
                                   TypeParam::addressBytes + " 00 11 00 50");
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, ReceivedProtocolNoneIsReadCompletelyAndRefused)
{
    const auto& option = this->read("00 " + this->addressBytes + " 00 00 77 1a");

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(unread(this->stream), 0);
    EXPECT_EQ(option.getIP().toString(), TypeParam::address);
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::noProtocolLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OtherReceivedProtocolIsRefused)
{
    const auto& option = this->read("00 " + this->addressBytes + " 00 0a 77 1a");

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongProtocolLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OtherGivenProtocolIsRefused)
{
    const typename TypeParam::Option ofText(TypeParam::types[0], TypeParam::address, 1,
                                            static_cast<OptionL4Protocol::L4Protocol_t>(0x0a));
    const typename TypeParam::Option ofBytes(TypeParam::types[0], this->rawPointer, 1,
                                             OptionL4Protocol::NONE);

    EXPECT_FALSE(ofText.isValid());
    EXPECT_FALSE(ofBytes.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongProtocolLine, TypeParam::invalidStringLine,
                                                TypeParam::noProtocolLine, TypeParam::invalidArrayLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TypeOfAnotherKindIsRefused)
{
    const typename TypeParam::Option ofText(TypeParam::wrongType, TypeParam::address, 1,
                                            OptionL4Protocol::UDP);
    const typename TypeParam::Option ofBytes(TypeParam::wrongType, this->rawPointer, 1,
                                             OptionL4Protocol::UDP);

    EXPECT_FALSE(ofText.isValid());
    EXPECT_FALSE(ofBytes.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongTypeLine, TypeParam::invalidStringLine,
                                                TypeParam::wrongTypeLine, TypeParam::invalidArrayLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TypeOfAnotherKindIsRefusedWhenRead)
{
    typename TypeParam::Option option(TypeParam::wrongType);
    this->stream = streamOf("00 " + this->addressBytes + " 00 11 77 1a");

    this->stream >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongTypeLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TypeIsAskedForBeforeTheProtocol)
{
    const typename TypeParam::Option option(TypeParam::wrongType, TypeParam::address, 1,
                                            OptionL4Protocol::NONE);

    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongTypeLine, TypeParam::invalidStringLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, RefusedOptionKeepsNeitherPortNorProtocol)
{
    using Endpoint = typename TypeParam::Option;
    const auto otherProtocol = static_cast<OptionL4Protocol::L4Protocol_t>(0x0a);

    const Endpoint protocolOfText(TypeParam::types[0], TypeParam::address, 80, otherProtocol);
    const Endpoint protocolOfBytes(TypeParam::types[0], this->rawPointer, 80, otherProtocol);
    const Endpoint typeOfText(TypeParam::wrongType, TypeParam::address, 80, OptionL4Protocol::UDP);
    const Endpoint typeOfBytes(TypeParam::wrongType, this->rawPointer, 80, OptionL4Protocol::UDP);
    const Endpoint& read = this->read("00 " + this->addressBytes + " 66 0a 00 50");

    for (const Endpoint* option : {&protocolOfText, &protocolOfBytes, &typeOfText, &typeOfBytes, &read}) {
        EXPECT_FALSE(option->isValid());
        EXPECT_EQ(option->getPort(), 0);
        EXPECT_EQ(option->getL4Protocol(), OptionL4Protocol::NONE);
    }
    EXPECT_EQ(written(read), std::string(TypeParam::lengthBytes) + TypeParam::typeBytes[0] + " 00 " +
                                 TypeParam::addressBytes + " 00 00 00 00");
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, RefusedReadLeavesPortAndProtocolAsTheyWere)
{
    typename TypeParam::Option option(TypeParam::types[0], TypeParam::address, 30490, OptionL4Protocol::TCP);

    streamOf("00 " + this->addressBytes + " 00 0a 00 50") >> option;

    EXPECT_FALSE(option.isValid());
    EXPECT_EQ(option.getPort(), 30490);
    EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::TCP);
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, AddressTextOfTheOtherFamilyIsRefused)
{
    const typename TypeParam::Option option(TypeParam::types[0], TypeParam::addressOfTheOther, 1,
                                            OptionL4Protocol::UDP);

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongAddressLine, TypeParam::invalidStringLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TextThatIsNoAddressIsRefusedWithoutAnException)
{
    const typename TypeParam::Option option(TypeParam::types[0], "no address", 1, OptionL4Protocol::UDP);

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::wrongAddressLine, TypeParam::invalidStringLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, MissingAddressBytesAreRefused)
{
    const std::uint8_t* const nothing = nullptr;

    const typename TypeParam::Option option(TypeParam::types[0], nothing, 1, OptionL4Protocol::UDP);

    EXPECT_FALSE(option.isValid());
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::invalidArrayLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionCutShortTakesNothingOver)
{
    const auto& option = this->read("00 " + this->addressBytes + " 66 11 77");

    EXPECT_EQ(option.getIP().toString(), TypeParam::wildcard);
    EXPECT_EQ(option.getPort(), 0);
    EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::NONE);
    EXPECT_EQ(toHex(option.getIP_asBytes(), this->rawAddress.size()),
              toHex(std::string(this->rawAddress.size(), '\0')));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, OptionOfAnotherLengthTakesNothingOver)
{
    const auto& option = this->read("00 " + this->addressBytes + " 66 11 77 1a ee", TypeParam::length + 1);

    EXPECT_EQ(option.getIP().toString(), TypeParam::wildcard);
    EXPECT_EQ(option.getPort(), 0);
    EXPECT_EQ(option.getL4Protocol(), OptionL4Protocol::NONE);
    EXPECT_EQ(toHex(option.getIP_asBytes(), this->rawAddress.size()),
              toHex(std::string(this->rawAddress.size(), '\0')));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, ReadThatIsCutShortLeavesAValidOptionAsItWas)
{
    typename TypeParam::Option option(TypeParam::types[0], TypeParam::address, 30490, OptionL4Protocol::TCP);
    const std::string before = written(option);

    streamOf("00 " + toHex(std::string(this->rawAddress.size(), '\x77')) + " 66 11 00") >> option;

    EXPECT_TRUE(option.isValid());
    EXPECT_EQ(written(option), before);
    EXPECT_EQ(option.getIP().toString(), TypeParam::address);
    EXPECT_THAT(this->log.errors(), ElementsAre(TypeParam::cutByOneLine));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TextHoldsKindAddressPortAndProtocol)
{
    const char* const kinds[] = {"ENDPOINT", "MULTICAST", "SD_ENDPOINT"};
    for (std::size_t i = 0; i < std::size(TypeParam::types); ++i) {
        const typename TypeParam::Option option(TypeParam::types[i], TypeParam::address, 30490,
                                                OptionL4Protocol::TCP);

        EXPECT_EQ(option.toString(1), std::string("\t") + TypeParam::name + " Option: Type(" + kinds[i] +
                                          "), " + TypeParam::shownAddress + ":30490), L4(TCP)");
    }
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TextNamesUDP)
{
    const typename TypeParam::Option option(TypeParam::types[0], TypeParam::address, 1,
                                            OptionL4Protocol::UDP);

    EXPECT_THAT(option.toString(0), ::testing::EndsWith(", L4(UDP)"));
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TextOfARefusedOptionHasNoProtocol)
{
    const auto& option = this->read("00 " + this->addressBytes + " 00 1a 77 1a");

    EXPECT_EQ(option.toString(0), std::string(TypeParam::name) + " Option: Type(ENDPOINT), " +
                                      TypeParam::shownAddress + ":0), L4(0x0=UNKNOWN)");
}

TYPED_TEST(SOME_IP_SD_Option_EndpointTest, TextOfATypeOfAnotherKindSaysSo)
{
    const typename TypeParam::Option option(TypeParam::wrongType);

    EXPECT_THAT(option.toString(0),
                ::testing::StartsWith(std::string(TypeParam::name) + " Option: Type(<UNKNOWN>), "));
}

TEST(SOME_IP_SD_Option_IPv6Test, ReferenceEndpointHasTwentyFourBytes)
{
    const SOME_IP_SD_Option_IPv6 option(OptionType::IP6_ENDPOINT, "fd00::1", 30490, OptionL4Protocol::UDP);

    EXPECT_EQ(written(option), "00 15 06 00 fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 77 1a");
}

TEST(SOME_IP_SD_Option_IPv6Test, ScopeHasNoPlaceOnTheWire)
{
    const SOME_IP_SD_Option_IPv6 option(OptionType::IP6_ENDPOINT, "fe80::1%lo", 80, OptionL4Protocol::UDP);

    EXPECT_EQ(written(option), "00 15 06 00 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 01 00 11 00 50");
}

TEST(SOME_IP_SD_Option_IPv6Test, ReceivedLinkLocalAddressHasNoScope)
{
    SOME_IP_SD_Option_IPv6 option(OptionType::IP6_ENDPOINT);
    std::istringstream stream = streamOf("00 fe 80 00 00 00 00 00 00 00 00 00 00 00 00 00 12 00 11 00 50");

    stream >> option;

    EXPECT_EQ(option.getIP().toString(), "fe80::12");
}

TEST(SOME_IP_SD_Option_IPv6Test, ByteStreamIsTheSixteenBytesOfAnIPv6Address)
{
    EXPECT_EQ(toHex(SOME_IP_SD_Option_IPv6::toByteStream(Poco::Net::IPAddress("fd00::1"))),
              "fd 00 00 00 00 00 00 00 00 00 00 00 00 00 00 01");
}

TEST(SOME_IP_SD_Option_IPv6Test, ByteStreamOfAnotherFamilyIsEmpty)
{
    EXPECT_EQ(SOME_IP_SD_Option_IPv6::toByteStream(Poco::Net::IPAddress("10.0.0.1")), "");
}

}  // namespace Nubo::ServiceDiscovery::Testing
