#include "DataLayer/SOME_IP_SD/SOME_IP_SD.h"
#include "DataLayer/ServiceDiscovery_Types.h"

#include <type_traits>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace Nubo::ServiceDiscovery::Testing {

using SOME_IP_SD_Types::EntryValues;
using SOME_IP_SD_Types::MetaData;
using SOME_IP_SD_Types::OptionKeywords;
using SOME_IP_SD_Types::OptionLength;
using SOME_IP_SD_Types::OptionRun;
using SOME_IP_Types::HeaderValues;
using ::testing::ElementsAre;

TEST(ServiceDiscovery_TypesTest, HeaderValuesAreThoseOfTheProtocol)
{
    EXPECT_EQ(HeaderValues::ServiceID_Reserved, 0x0000);
    EXPECT_EQ(HeaderValues::ServiceID_Reserved_LowerLimit, 0xFF00);
    EXPECT_EQ(HeaderValues::ServiceID_Reserved_UpperLimit, 0xFF5F);
    EXPECT_EQ(HeaderValues::ServiceID_SOMEIP_SD, 0xFFFF);
    EXPECT_EQ(HeaderValues::MethodID_Reserved00, 0x0000);
    EXPECT_EQ(HeaderValues::MethodID_Reserved01, 0x7FFF);
    EXPECT_EQ(HeaderValues::MethodID_Reserved02, 0x8000);
    EXPECT_EQ(HeaderValues::MethodID_SOMEIP_SD_Msg, 0x8100);
    EXPECT_EQ(HeaderValues::MethodID_Reserved03, 0xFFFF);
}

TEST(ServiceDiscovery_TypesTest, ReservedSetsHoldOneServiceAndFourMethods)
{
    EXPECT_THAT(HeaderValues::Reserved_ServiceIDs, ElementsAre(0x0000));
    EXPECT_THAT(HeaderValues::Reserved_MethodIDs, ElementsAre(0x0000, 0x7FFF, 0x8000, 0xFFFF));
}

TEST(ServiceDiscovery_TypesTest, EntryValuesAreThoseOfTheProtocol)
{
    EXPECT_EQ(EntryValues::ServiceID_Any, 0xFFFF);
    EXPECT_EQ(EntryValues::ServiceID_Non_SOMEIP_SD, 0xFFFE);
    EXPECT_EQ(EntryValues::InstanceID_Reserved, 0x0000);
    EXPECT_EQ(EntryValues::InstanceID_Any, 0xFFFF);
    EXPECT_EQ(EntryValues::MajorVersion_Any, 0xFF);
    EXPECT_EQ(EntryValues::MinorVersion_Any, 0xFFFFFFFFu);
}

TEST(ServiceDiscovery_TypesTest, KeywordsAreThoseOfTheProtocol)
{
    EXPECT_EQ(OptionKeywords::NonSOME_IP_ServiceName, "otherserv");
    EXPECT_EQ(OptionKeywords::Hostname, "hostname");
    EXPECT_EQ(OptionKeywords::Instancename, "instancename");
    EXPECT_EQ(OptionKeywords::Servicename, "servicename");
    EXPECT_EQ(OptionKeywords::NuBo_RecordVersionKey, "txtvers");
    EXPECT_EQ(OptionKeywords::NuBo_RecordVersionValue, "1");
    EXPECT_EQ(OptionKeywords::NuBo_ApplProtocolKey, "l6proto");
    EXPECT_EQ(OptionKeywords::NuBo_ApplProtocolValue, "nubo");
    EXPECT_EQ(OptionKeywords::NuBo_Category, "category");
    EXPECT_EQ(OptionKeywords::NuBo_Version, "version");
}

TEST(ServiceDiscovery_TypesTest, NamesTravelUnderOtherservNotServicename)
{
    EXPECT_EQ(OptionKeywords::NuBo_Servicename, OptionKeywords::NonSOME_IP_ServiceName);
    EXPECT_EQ(OptionKeywords::NuBo_Servicename, "otherserv");
    EXPECT_NE(OptionKeywords::NuBo_Servicename, OptionKeywords::Servicename);
}

TEST(ServiceDiscovery_TypesTest, EntryTypesAreTheirTypeBytes)
{
    EXPECT_EQ(EntryType::FIND_SERVICE, 0x00);
    EXPECT_EQ(EntryType::OFFER_SERVICE, 0x01);
    EXPECT_EQ(EntryType::SUBSCRIBE, 0x06);
    EXPECT_EQ(EntryType::SUBSCRIBE_ACK, 0x07);
    EXPECT_EQ(EntryType::INVALID, 0xFF);
}

TEST(ServiceDiscovery_TypesTest, OptionTypesAreTheirTypeBytes)
{
    EXPECT_EQ(OptionType::NONE, 0x00);
    EXPECT_EQ(OptionType::CONFIGURATION, 0x01);
    EXPECT_EQ(OptionType::LOAD_BALANCING, 0x02);
    EXPECT_EQ(OptionType::IP4_ENDPOINT, 0x04);
    EXPECT_EQ(OptionType::IP6_ENDPOINT, 0x06);
    EXPECT_EQ(OptionType::IP4_MULTICAST, 0x14);
    EXPECT_EQ(OptionType::IP6_MULTICAST, 0x16);
    EXPECT_EQ(OptionType::IP4_SD_ENDPOINT, 0x24);
    EXPECT_EQ(OptionType::IP6_SD_ENDPOINT, 0x26);
}

TEST(ServiceDiscovery_TypesTest, TransportProtocolsAreTheirIPNumbers)
{
    EXPECT_EQ(OptionL4Protocol::NONE, 0x00);
    EXPECT_EQ(OptionL4Protocol::TCP, 6);
    EXPECT_EQ(OptionL4Protocol::UDP, 17);
}

TEST(ServiceDiscovery_TypesTest, OptionLengthsCountTheReservedByte)
{
    EXPECT_EQ(OptionLength::MIN, 1);
    EXPECT_EQ(OptionLength::LOAD_BALANCING, 5);
    EXPECT_EQ(OptionLength::IP4, 9);
    EXPECT_EQ(OptionLength::IP6, 21);
}

TEST(ServiceDiscovery_TypesTest, FlagsAreBits)
{
    EXPECT_EQ(SOME_IP_SD::NONE, 0x00);
    EXPECT_EQ(SOME_IP_SD::REBOOT, 0x80);
    EXPECT_EQ(SOME_IP_SD::UNICAST, 0x40);
    EXPECT_EQ(SOME_IP_SD::EIDCF, 0x20);
}

TEST(ServiceDiscovery_TypesTest, MetaDataCountsFromZeroOrFromASize)
{
    EXPECT_EQ(MetaData().remainingPacketLength, 0);
    EXPECT_EQ(MetaData(28).remainingPacketLength, 28);
    EXPECT_TRUE((std::is_same_v<decltype(MetaData::remainingPacketLength), std::streamsize>));
}

TEST(ServiceDiscovery_TypesTest, PairsWithEqualKeysKeepTheirOrder)
{
    ConfigurationPairs pairs;
    pairs.emplace("b", "2");
    pairs.emplace("a", "x");
    pairs.emplace("b", "1");

    EXPECT_THAT(pairs,
                ElementsAre(std::make_pair("a", "x"), std::make_pair("b", "2"), std::make_pair("b", "1")));
}

TEST(ServiceDiscovery_TypesTest, OptionRunIsAnIndexAndANumberOfOneByteEach)
{
    EXPECT_TRUE((std::is_same_v<OptionRun, std::pair<std::uint8_t, std::uint8_t>>));
}

TEST(ServiceDiscovery_TypesTest, NamesOfTheTypesAreVisibleInTheNamespaceToo)
{
    EXPECT_TRUE((std::is_same_v<EntryType, SOME_IP_SD_Types::EntryType>));
    EXPECT_TRUE((std::is_same_v<OptionType, SOME_IP_SD_Types::OptionType>));
    EXPECT_TRUE((std::is_same_v<OptionL4Protocol, SOME_IP_SD_Types::OptionL4Protocol>));
}

namespace {

struct Width
{
    const char* name;
    std::size_t width;
    std::size_t expected;
};

struct WidthTest : ::testing::TestWithParam<Width>
{};

}  // namespace

TEST_P(WidthTest, IsThatOfTheFieldOnTheWire)
{
    EXPECT_EQ(GetParam().width, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    ServiceDiscovery_Types, WidthTest,
    ::testing::Values(
        Width{"ReservedServiceID", sizeof(HeaderValues::ServiceID_Reserved), 2},
        Width{"LowestReservedServiceID", sizeof(HeaderValues::ServiceID_Reserved_LowerLimit), 2},
        Width{"HighestReservedServiceID", sizeof(HeaderValues::ServiceID_Reserved_UpperLimit), 2},
        Width{"DiscoveryServiceID", sizeof(HeaderValues::ServiceID_SOMEIP_SD), 2},
        Width{"DiscoveryMethodID", sizeof(HeaderValues::MethodID_SOMEIP_SD_Msg), 2},
        Width{"AnyServiceID", sizeof(EntryValues::ServiceID_Any), 2},
        Width{"WebServiceID", sizeof(EntryValues::ServiceID_Non_SOMEIP_SD), 2},
        Width{"ReservedInstanceID", sizeof(EntryValues::InstanceID_Reserved), 2},
        Width{"AnyInstanceID", sizeof(EntryValues::InstanceID_Any), 2},
        Width{"AnyMajorVersion", sizeof(EntryValues::MajorVersion_Any), 1},
        Width{"AnyMinorVersion", sizeof(EntryValues::MinorVersion_Any), 4},
        Width{"EntryType", sizeof(EntryType::Type_t), 1}, Width{"OptionType", sizeof(OptionType::Type_t), 1},
        Width{"TransportProtocol", sizeof(OptionL4Protocol::L4Protocol_t), 1},
        Width{"OptionLength", sizeof(OptionLength::Length_t), 2},
        Width{"Flags", sizeof(SOME_IP_SD::FLAGS_t), 1}),
    [](const auto& row) { return row.param.name; });

}  // namespace Nubo::ServiceDiscovery::Testing
